#include "uninstall/reserved_paths.h"

#include <algorithm>

namespace valta {

bool IsReservedPath(std::string_view path, std::string_view prefix) {
  if (path.size() <= prefix.size()) {
    return false;
  }
  std::string_view remainder = path.substr(prefix.size());
  while (remainder.starts_with('/')) {
    remainder.remove_prefix(1);
  }
  return std::find(ReservedPaths.begin(), ReservedPaths.end(), remainder) != ReservedPaths.end();
}

}  // namespace valta
