#pragma once

#include "inspect/report/report.h"

namespace valta::inspect {

/// Prints `report` for people, 80 columns wide. Long lists are counted, and printed only if
/// `verbose`. Control characters are printed as "\" and three octal digits.
void print_text(const Report& report, bool verbose);

}  // namespace valta::inspect
