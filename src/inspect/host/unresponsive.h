#pragma once

#include <string>
#include <vector>

#include "inspect/host/mounts.h"

namespace valta::inspect {

/// The points of those of `mounts` whose file system does not answer within about a second, such as
/// that of a server that is down. Asks in processes of its own: one that waits for such a file
/// system cannot be ended, and is left behind until it answers.
[[nodiscard]] std::vector<std::string> unresponsive_points(const std::vector<Mount>& mounts);

}  // namespace valta::inspect
