#pragma once

#include <optional>
#include <string>

#include "inspect/report/report.h"

namespace valta::inspect {

/// Rehearses a run of `program`, an absolute path, for `timeout` seconds at most, and looks at what
/// a run cannot tell. Changes nothing on this host.
///
/// Where no rehearsal is possible the outcome is `unknown`, with what was tried in the reason, and
/// with the findings that need none. Afterwards this process is in namespaces of its own and sees
/// the image in the place of the host.
[[nodiscard]] Report before(const std::string& program, int timeout);

/// Judges the last run by its log and by what is left of the installation on this host. `status`
/// and `console`, what the run showed, are known to whoever ran it and kept them.
[[nodiscard]] Report after(std::optional<int> status, const std::string& console);

}  // namespace valta::inspect
