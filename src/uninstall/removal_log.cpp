#include "uninstall/removal_log.h"

#include "log/log.h"

namespace valta {

void log_removal(const std::string& path, bool removed) {
  zvlogger::log(LogLevel::Info, removed ? "Uninstall: %s Succeed.\n" : "Uninstall: %s Failed.\n",
                path.c_str());
}

}  // namespace valta
