#pragma once

#include <string>

namespace valta::inspect::removal {

/// Puts back the content of the archive `file`. Without `force`, refuses on another host, while the
/// uninstaller is running, and if a path has changed since the run. Prints what it did and what it
/// could not do. Returns the exit status: 0, 1 if something could not be put back, 2 if nothing was
/// changed. Throws std::exception.
[[nodiscard]] int undo(const std::string& file, bool force);

}  // namespace valta::inspect::removal
