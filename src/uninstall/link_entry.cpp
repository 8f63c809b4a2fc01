#include "uninstall/link_entry.h"

#include <unistd.h>

#include "uninstall/removal_log.h"
#include "uninstall/shared_path.h"
#include "utils/files.h"

namespace valta {
namespace {

constexpr const char* kSharedSuffix = "/lib";

ResultCode delete_link(const std::string& path, ResultCode code_on_failure) {
  if (!is_symlink(path)) {
    return ResultCode::success;
  }
  const bool removed = unlink(path.c_str()) == 0;
  log_removal(path, removed);
  return removed ? ResultCode::success : code_on_failure;
}

}  // namespace

ResultCode HandleSymlinkEntry(const ManifestEntry& entry) {
  if (entry.path.ends_with(kSharedSuffix) && shared_path_in_use(entry.path)) {
    return ResultCode::success;
  }
  return delete_link(entry.path, ResultCode::link_failed);
}

ResultCode HandleRlinkEntry(const ManifestEntry& entry) {
  if (shared_path_in_use(entry.path)) {
    return ResultCode::success;
  }
  return delete_link(entry.path, ResultCode::shared_link_failed);
}

}  // namespace valta
