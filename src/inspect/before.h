#pragma once

#include <string>

#include "inspect/report/report.h"

namespace valta::inspect {

/// Does a dry run of `program`, an absolute path, for `timeout` seconds at most, and looks at what
/// a run cannot show. Changes nothing on this host.
///
/// Where no dry run is possible the outcome is `unknown`, with what was tried in the reason, and
/// with the findings that need none. Afterwards this process is in namespaces of its own and may
/// see the overlay in the place of the host.
[[nodiscard]] Report before(const std::string& program, int timeout);

}  // namespace valta::inspect
