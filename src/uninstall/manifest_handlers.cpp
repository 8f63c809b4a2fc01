#include "uninstall/manifest_handlers.h"

#include <cstdio>

#include "log/log.h"
#include "uninstall/dir_entry.h"
#include "uninstall/dkms.h"
#include "uninstall/file_entry.h"
#include "uninstall/link_entry.h"
#include "uninstall/manifest_state.h"
#include "uninstall/service.h"
#include "uninstall/valta_entry.h"

namespace valta {

const std::unordered_map<std::string, ManifestHandler> ManifestHandlers = {
    {"VALTA", &HandleValtaEntry},      //
    {"SYMLINK", &HandleSymlinkEntry},  //
    {"FILE", &HandleFileEntry},        //
    {"RFILE", &HandleRfileEntry},      //
    {"RLINK", &HandleRlinkEntry},      //
    {"DIR", &HandleDirEntry},          //
    {"SERVICE", &HandleServiceEntry},  //
    {"DKMS", &HandleDkmsEntry},
};

ResultCode ProcessManifestEntries(const std::vector<ManifestEntry>& entries) {
  ChangedFileFound = false;
  for (const auto& entry : entries) {
    const auto handler = ManifestHandlers.find(entry.type);
    if (handler == ManifestHandlers.end()) {
      std::printf("Uninstall: type:%s's handler is not found.\n", entry.type.c_str());
      return ResultCode::failure;
    }
    const ResultCode code = handler->second(entry);
    if (code != ResultCode::success && code != ResultCode::tolerated) {
      return code;
    }
  }
  if (ChangedFileFound) {
    zvlogger::log(LogLevel::Print,
                  "Found changed file during uninstall valta, changed file will not be remove.\n"
                  "Check uninstall log please.\n");
  }
  return ResultCode::success;
}

}  // namespace valta
