#pragma once

#include <optional>
#include <string>

#include "inspect/report/report.h"

namespace valta::inspect {

/// Checks the last run by its log and by what is left of the installation on this host. `status`
/// and `console`, what the run showed, are known to whoever ran it and kept them.
[[nodiscard]] Report after(std::optional<int> status, const std::string& console);

}  // namespace valta::inspect
