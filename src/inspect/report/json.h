#pragma once

#include "inspect/report/report.h"

namespace valta::inspect {

/// Prints `report` for programs: one JSON object, in ASCII, with a newline. Bytes that are not
/// UTF-8 become U+FFFD.
void print_json(const Report& report);

}  // namespace valta::inspect
