#pragma once

#include <string>
#include <vector>

#include "inspect/report/report.h"

namespace valta::inspect {

/// What a run could not do, by the lines of its log and by its standard output, which may not be
/// known. What ended the run comes first.
[[nodiscard]] std::vector<Failure> failures_of(const std::vector<std::string>& lines,
                                               const std::string& output);

/// `failure` as a sentence without its stop.
[[nodiscard]] std::string describe(const Failure& failure);

}  // namespace valta::inspect
