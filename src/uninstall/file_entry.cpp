#include "uninstall/file_entry.h"

#include <cstdio>

#include "log/log.h"
#include "uninstall/manifest_state.h"
#include "uninstall/removal_log.h"
#include "uninstall/shared_path.h"
#include "utils/digest.h"
#include "utils/files.h"

namespace valta {
namespace {

const std::string& digest_of(const std::string& path) {
  const auto cached = DigestCache.find(path);
  return cached != DigestCache.end() ? cached->second
                                     : DigestCache.emplace(path, file_md5(path)).first->second;
}

}  // namespace

ResultCode HandleFileEntry(const ManifestEntry& entry) {
  const char* const path = entry.path.c_str();
  if (!path_exists(entry.path)) {
    zvlogger::log(LogLevel::Info, "Uninstall: %s not exist. Skipping.\n", path);
    return ResultCode::success;
  }
  const std::string& digest = digest_of(entry.path);
  if (digest.empty()) {
    zvlogger::log(LogLevel::Warning, "Uninstall: md5sum of %s is empty. Skipping.\n", path);
    return ResultCode::success;
  }
  if (digest != entry.digest) {
    ChangedFileFound = true;
    zvlogger::log(LogLevel::Warning,
                  "Uninstall: md5sum of %s has changed. Skipping. expected,actual:(%s %s).\n", path,
                  entry.digest.c_str(), digest.c_str());
    return ResultCode::success;
  }
  const bool removed = std::remove(path) == 0;
  log_removal(entry.path, removed);
  return removed ? ResultCode::success : ResultCode::file_failed;
}

ResultCode HandleRfileEntry(const ManifestEntry& entry) {
  return shared_path_in_use(entry.path) ? ResultCode::success : HandleFileEntry(entry);
}

}  // namespace valta
