#pragma once

#include <string>
#include <vector>

#include "inspect/report/report.h"

namespace valta::inspect {

/// The failed steps of a run, from the lines of its log and from its standard output, if that is
/// known. The step that ended the run comes first.
[[nodiscard]] std::vector<Failure> failures_of(const std::vector<std::string>& lines,
                                               const std::string& output);

/// `failure` as a sentence without its stop.
[[nodiscard]] std::string describe(const Failure& failure);

}  // namespace valta::inspect
