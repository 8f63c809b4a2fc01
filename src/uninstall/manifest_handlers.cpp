#include "uninstall/manifest_handlers.h"

#include <array>
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

namespace {

struct EntryType {
  const char* keyword;
  EntryTarget target;
  ManifestHandler handler;
};

constexpr std::array<EntryType, 8> kEntryTypes = {{
    {"VALTA", EntryTarget::prefix, &HandleValtaEntry},
    {"SYMLINK", EntryTarget::link, &HandleSymlinkEntry},
    {"FILE", EntryTarget::file, &HandleFileEntry},
    {"RFILE", EntryTarget::file, &HandleRfileEntry},
    {"RLINK", EntryTarget::link, &HandleRlinkEntry},
    {"DIR", EntryTarget::directory, &HandleDirEntry},
    {"SERVICE", EntryTarget::unit, &HandleServiceEntry},
    {"DKMS", EntryTarget::dkms_module, &HandleDkmsEntry},
}};

std::unordered_map<std::string, ManifestHandler> handlers_by_keyword() {
  std::unordered_map<std::string, ManifestHandler> handlers;
  for (const EntryType& type : kEntryTypes) {
    handlers.emplace(type.keyword, type.handler);
  }
  return handlers;
}

}  // namespace

const std::unordered_map<std::string, ManifestHandler> ManifestHandlers = handlers_by_keyword();

std::optional<EntryTarget> target_of(const std::string& keyword) {
  for (const EntryType& type : kEntryTypes) {
    if (type.keyword == keyword) {
      return type.target;
    }
  }
  return std::nullopt;
}

bool names_path(const std::string& keyword) {
  const auto target = target_of(keyword);
  return target == EntryTarget::file || target == EntryTarget::link ||
         target == EntryTarget::directory;
}

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
