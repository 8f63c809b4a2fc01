#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/report/report.h"

namespace valta::inspect {

/// What a run left to judge it by.
struct RunRecord {
  std::optional<int> status;               ///< if it is known
  std::string console;                     ///< standard error; empty when nobody kept it
  std::string output;                      ///< standard output, likewise
  std::optional<std::string> log;          ///< none when there is no log
  std::vector<std::string> registrations;  ///< what DKMS still has of the module, as paths
  bool installed = false;                  ///< whether the installation root is there
  bool has_md5sum = true;                  ///< whether the host has the tool
  bool has_kernel_modules = true;          ///< whether there is anything for depmod to refresh
};

/// Judges a run: sets the outcome, its reason, the status, the texts, and what the log says of the
/// paths of the manifest (`removed`, `kept`; the kind of what is gone is not in the log, `other`)
/// and of the drivers that it unloaded.
///
/// A status of 0 is no proof: the program ends with it, for one, when a clean-up failed that came
/// too late to matter to its caller. So "done" takes a complete log without any sign of trouble.
void check_run(const RunRecord& run, Report& report);

/// Whether the run that was checked came as far as the manifest, so that what is left of it is left
/// for a reason.
[[nodiscard]] bool came_to_the_manifest(const Report& report);

/// Whether it left units and DKMS alone.
[[nodiscard]] bool in_container(const Report& report);

/// Whether it ended within the manifest.
[[nodiscard]] bool ended_in_the_manifest(const Report& report);

}  // namespace valta::inspect
