#pragma once

#include <string>

namespace valta::inspect::removal {

/// Puts back what the archive `file` has, unless something there is newer or the host another one;
/// `force` does it even then. Prints what it did and what it could not do. Returns the exit status:
/// 0, 1 when something could not be put back, 2 when nothing was touched. Throws std::exception.
[[nodiscard]] int undo(const std::string& file, bool force);

}  // namespace valta::inspect::removal
