#include "installer/remove_driver.h"

#include <exception>
#include <vector>

#include "installer/kernel_module.h"
#include "installer/ofed.h"
#include "log/log.h"
#include "uninstall/manifest.h"
#include "uninstall/manifest_handlers.h"
#include "utils/command.h"
#include "utils/search_path.h"

namespace valta {
namespace {

ResultCode report_busy_companion(const char* name) {
  zvlogger::log(LogLevel::Error,
                "Remove '%s' failed and it's maybe busy. The packaged driver you're attempting to "
                "install should kill these associated processes first.\n",
                name);
  return ResultCode::module_busy;
}

ResultCode unload_companions() {
  if (module_status(kCompanion) != ModuleStatus::not_loaded) {
    try_to_unload(kCompanion);
    if (module_status(kCompanion) != ModuleStatus::not_loaded) {
      return report_busy_companion(kCompanion);
    }
  }
  if (ofed_present()) {
    try_to_unload(kPeerMemoryCompanion);
    if (module_status(kPeerMemoryCompanion) != ModuleStatus::not_loaded) {
      return report_busy_companion(kPeerMemoryCompanion);
    }
  }
  return ResultCode::success;
}

ResultCode unload_driver(const std::string& name) {
  CommandResult result;
  if (!unload(name, result)) {
    zvlogger::log(LogLevel::Error, "Failed to uninstall driver %s.\n", name.c_str());
    zvlogger::log(LogLevel::Debug, "%s\n", result.output.c_str());
    return ResultCode::failure;
  }
  zvlogger::log(LogLevel::Info, "Successful to uninstall driver %s.\n", name.c_str());
  return ResultCode::success;
}

std::vector<ManifestEntry> load_entries(const std::string& name) {
  std::vector<ManifestEntry> entries = LoadUninstallManifests(kUninstallManifestPath);
  if (!entries.empty()) {
    return entries;
  }
  zvlogger::log(LogLevel::Warning, "parse uninstall manifest error. please uninstall %s manually\n",
                name.c_str());
  if (!which("dkms").empty()) {
    zvlogger::log(LogLevel::Debug, "Found dkms, try to remove dkms ValtA configuration.\n");
    entries.push_back({"DKMS", "latest", ""});
  }
  return entries;
}

ResultCode process_manifest(const std::string& name) {
  ResultCode code = ResultCode::failure;
  try {
    code = ProcessManifestEntries(load_entries(name));
  } catch (const std::exception& error) {
    zvlogger::log(LogLevel::Error, "%s\n", error.what());
  }
  if (code != ResultCode::success) {
    zvlogger::log(LogLevel::Error, "failed in removing.\n");
  }
  return code;
}

void remove_configuration() {
  for (const char* const path : kConfigurationPaths) {
    CommandResult result;
    if (!succeeds(std::string("rm -rf ") + path, result)) {
      zvlogger::log(LogLevel::Error, "Clean up the old configuration file %s failed, %s", path,
                    result.output.c_str());
    }
  }
}

ResultCode refresh_module_dependencies(const std::string& name) {
  CommandResult result;
  if (!succeeds("depmod 2>&1", result)) {
    zvlogger::log(LogLevel::Error, "Failed to depmod, modprobe/modinfo might cant find %s:\n%s\n",
                  name.c_str(), result.output.c_str());
    return ResultCode::failure;
  }
  return ResultCode::success;
}

ResultCode remove_installed(const std::string& name) {
  if (const auto code = process_manifest(name); code != ResultCode::success) {
    return code;
  }
  remove_configuration();
  return refresh_module_dependencies(name);
}

}  // namespace

ResultCode remove_driver(const std::string& name) {
  if (name.empty()) {
    return remove_installed(name);
  }
  if (const auto code = unload_companions(); code != ResultCode::success) {
    return code;
  }
  switch (module_status(name)) {
    case ModuleStatus::not_loaded:
      // It was loaded a moment ago. Another process has unloaded it and may use its files.
      return ResultCode::success;
    case ModuleStatus::match_error:
      zvlogger::log(LogLevel::Error, "Internal error.\n");
      return ResultCode::failure;
    case ModuleStatus::in_use:
      // One frozen text for both drivers.
      zvlogger::log(LogLevel::Error,
                    "'zephanor' is busy. The packaged driver you're attempting to install should "
                    "kill these associated processes first.\n");
      return ResultCode::module_busy;
    case ModuleStatus::unreferenced:
      break;
    default:
      return ResultCode::failure;
  }
  if (const auto code = unload_driver(name); code != ResultCode::success) {
    return code;
  }
  return remove_installed(name);
}

}  // namespace valta
