#pragma once

#include <optional>
#include <string>

#include "inspect/report/report.h"

namespace valta::inspect {

/// Checks the last run by its log and by the state of this host. `status` and `console` are the
/// exit status and the standard error of the run, if the caller kept them.
[[nodiscard]] Report after(std::optional<int> status, const std::string& console);

}  // namespace valta::inspect
