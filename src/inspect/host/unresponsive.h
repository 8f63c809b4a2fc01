#pragma once

#include <string>
#include <vector>

#include "inspect/host/mounts.h"

namespace valta::inspect {

/// The mount points of `mounts` whose file system does not answer within about a second, for
/// example because its server is down. Child processes test the mounts: a child that waits for such
/// a file system cannot be killed, and is left until the file system answers.
[[nodiscard]] std::vector<std::string> unresponsive_points(const std::vector<Mount>& mounts);

}  // namespace valta::inspect
