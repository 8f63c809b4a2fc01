#pragma once

#include <string>
#include <vector>

namespace valta {

/// Whether something is at `path`, a dangling link too. A path with a NUL byte names nothing.
[[nodiscard]] bool lexists(const std::string& path);

/// The names in `directory`, sorted; none when it cannot be read.
[[nodiscard]] std::vector<std::string> names_in(const std::string& directory);

/// The paths below `directory`, itself not included, directories too, sorted. Links are not
/// followed. Skips directories that cannot be read.
[[nodiscard]] std::vector<std::string> paths_below(const std::string& directory);

}  // namespace valta
