#pragma once

#include "inspect/report/report.h"

namespace valta::inspect {

/// Prints `report` for people, 80 columns wide. What is many is counted, and listed when `verbose`.
/// Control characters, which a path may hold, are shown as "?".
void print_text(const Report& report, bool verbose);

}  // namespace valta::inspect
