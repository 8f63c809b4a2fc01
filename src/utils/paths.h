#pragma once

#include <string_view>

namespace valta {

/// Whether `path` is `directory` or below it, by their texts alone. Both are absolute, without a
/// "/" at the end.
[[nodiscard]] constexpr bool is_below(std::string_view path, std::string_view directory) {
  return directory == "/" || (path.starts_with(directory) &&
                              (path.size() == directory.size() || path[directory.size()] == '/'));
}

}  // namespace valta
