#include "inspect/host/attributes.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace valta::inspect {

bool is_immutable(const std::string& path) {
  struct statx status {};
  return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, STATX_TYPE,
               &status) == 0 &&
         (status.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0;
}

}  // namespace valta::inspect
