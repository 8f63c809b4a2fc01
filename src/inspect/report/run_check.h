#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/report/report.h"

namespace valta::inspect {

/// The results of a run.
struct RunRecord {
  std::optional<int> status;               ///< if it is known
  std::string console;                     ///< standard error; empty if it was not kept
  std::string output;                      ///< standard output, likewise
  std::optional<std::string> log;          ///< none when there is no log
  std::vector<std::string> registrations;  ///< what DKMS still has of the module, as paths
  bool installed = false;                  ///< whether the installation root is there
  bool has_md5sum = true;                  ///< whether the host has the tool
  bool has_kernel_modules = true;          ///< whether there is anything for depmod to refresh
};

/// Checks a run: sets the outcome, its reason, the status and the texts. Sets `removed`, `kept` and
/// `unloaded` from the log, which does not have the kinds of removed paths: they are `other`.
///
/// A status of 0 does not prove success: without a loaded driver the program ends with 0 whatever
/// fails. So "done" needs a complete log without an error.
void check_run(const RunRecord& run, Report& report);

/// Whether the checked run reached the manifest, so that each path that is left has a reason.
[[nodiscard]] bool came_to_the_manifest(const Report& report);

/// Whether it left units and DKMS alone.
[[nodiscard]] bool in_container(const Report& report);

/// Whether it ended within the manifest.
[[nodiscard]] bool ended_in_the_manifest(const Report& report);

}  // namespace valta::inspect
