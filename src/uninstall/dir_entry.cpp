#include "uninstall/dir_entry.h"

#include <filesystem>

#include "log/log.h"
#include "uninstall/removal_log.h"
#include "utils/text.h"

namespace valta {
namespace fs = std::filesystem;

ResultCode HandleDirEntry(const ManifestEntry& entry) {
  const char* const path = entry.path.c_str();
  if (has_nul(entry.path) || !fs::exists(entry.path)) {
    return ResultCode::success;
  }
  if (!fs::is_empty(entry.path)) {
    zvlogger::log(LogLevel::Debug, "Uninstall: %s not empty skip.\n", path);
    return ResultCode::success;
  }
  try {
    log_removal(entry.path, fs::remove(entry.path));
  } catch (const fs::filesystem_error& error) {
    zvlogger::log(LogLevel::Warning, "catched %s when rmdir %s\n", error.what(), path);
  }
  return ResultCode::success;
}

}  // namespace valta
