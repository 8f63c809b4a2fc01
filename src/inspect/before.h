#pragma once

#include <string>

#include "inspect/report/report.h"

namespace valta::inspect {

/// Whether the caller saves what the run would remove.
enum class Saving { no, yes };

/// Does a dry run of `program`, an absolute path, for `timeout` seconds at most, and checks the
/// host for problems that a run does not report. Without `saving`, a finding has the command that
/// saves. Changes nothing on this host.
///
/// If no dry run is possible, the outcome is `unknown`, the reason names the step that failed, and
/// the report has the findings that need no dry run. Afterwards this process is in namespaces of
/// its own and may see the overlay instead of the host.
[[nodiscard]] Report before(const std::string& program, int timeout, Saving saving);

}  // namespace valta::inspect
