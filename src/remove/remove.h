#pragma once

namespace valta::inspect::removal {

/// What the command line asks for.
struct Options {
  bool dry_run = false;
  bool save = true;
  bool yes = false;
  bool verbose = false;
};

/// Shows what a run would do, saves, asks, runs and shows what the run did. Returns the exit
/// status: that of `valta-driver-inspect after`, or that of `before` without a run. Throws
/// std::exception.
[[nodiscard]] int remove_stack(const Options& options);

}  // namespace valta::inspect::removal
