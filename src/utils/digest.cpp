#include "utils/digest.h"

#include "log/log.h"
#include "utils/command.h"
#include "utils/files.h"

namespace valta {

std::string file_md5(const std::string& path) {
  if (!path_exists(path)) {
    return "";
  }
  CommandResult result;
  if (!succeeds("md5sum '" + path + "' 2>&1", result)) {
    zvlogger::log(LogLevel::Warning, "MD5 for %s failed: %d ctx: %s\n", path.c_str(),
                  static_cast<int>(result.status), result.output.c_str());
    return "";
  }
  const std::size_t blank = result.output.find(' ');
  if (blank == std::string::npos) {
    zvlogger::log(LogLevel::Warning, "md5sum for %s: %s\n", path.c_str(), result.output.c_str());
    return "";
  }
  return result.output.substr(0, blank);
}

}  // namespace valta
