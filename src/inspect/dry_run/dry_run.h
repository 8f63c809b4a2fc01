#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/dry_run/overlay.h"
#include "inspect/dry_run/stubs.h"

namespace valta::inspect {

/// The result of a run in an overlay.
struct DryRun {
  std::optional<int> status;         ///< none if it did not end in time
  std::vector<std::string> hung_on;  ///< the command lines that it waited for then
  std::string console;               ///< standard error
  std::string output;                ///< standard output
  std::string modules;               ///< the text of the module list afterwards
  std::vector<Action> actions;       ///< of the stubs
};

/// Runs `program`, an absolute path on the host, in `overlay`, and waits for its end, `timeout`
/// seconds at most. Throws `NotPossible` when it cannot be started.
///
/// The program is root with the capabilities for work on files and no others: it cannot load
/// modules, mount, or make devices. It sees no other processes and reaches no network, bus or
/// systemd. It ends with this process.
[[nodiscard]] DryRun dry_run(const Overlay& overlay, const std::string& program, int timeout);

}  // namespace valta::inspect
