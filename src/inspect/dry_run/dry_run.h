#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/dry_run/overlay.h"

namespace valta::inspect {

/// What came of a run in an image.
struct Rehearsal {
  std::optional<int> status;         ///< none when it did not end in time
  std::vector<std::string> hung_on;  ///< the command lines that it waited for then
  std::string console;               ///< standard error
  std::string output;                ///< standard output
  std::string modules;               ///< the text of the module list afterwards
  std::vector<std::string> deeds;    ///< what the stand-ins noted
};

/// Runs `program`, an absolute path on the host, in `image` as the first that may be, and waits for
/// it to end, `timeout` seconds at most. Throws `NotPossible` when it cannot be started.
///
/// The program is root with no more than what file work takes: it cannot load modules, mount, or
/// make devices, sees no other processes, and has nobody to talk to. It ends with this process.
/// Shows on a terminal's standard error that time goes by.
[[nodiscard]] Rehearsal rehearse(const Image& image, const std::string& program, int timeout);

}  // namespace valta::inspect
