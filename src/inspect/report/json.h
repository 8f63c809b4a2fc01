#pragma once

#include <string>

#include "inspect/report/report.h"

namespace valta::inspect {

/// `report` for programs: one JSON object, in ASCII. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string json_of(const Report& report);

}  // namespace valta::inspect
