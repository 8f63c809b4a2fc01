#include "uninstall/valta_entry.h"

#include "log/log.h"
#include "uninstall/manifest_state.h"

namespace valta {

ResultCode HandleValtaEntry(const ManifestEntry& entry) {
  InstalledPath = entry.path;
  zvlogger::log(LogLevel::Debug, "Installed path is %s.\n", InstalledPath.c_str());
  return ResultCode::success;
}

}  // namespace valta
