#include "installer/driver_installer.h"

#include "installer/kernel_module.h"
#include "installer/remove_driver.h"
#include "log/log.h"
#include "uninstall/install_root.h"
#include "utils/host.h"
#include "utils/text.h"

namespace valta {
namespace {

const std::vector<ModuleParameter> kModuleParameters = {{"vgpu_enable=1", false}};

std::string with_slash(const std::string& path) { return path.ends_with('/') ? path : path + "/"; }

/// The toolkit path itself if it ends in the stack's own directory, else that directory below it.
std::string derive_driver_prefix(const std::string& toolkit_path) {
  const std::string directory = std::string("valta-") + kStackVersion;
  const std::string prefix = with_slash(toolkit_path);
  return last_component(toolkit_path) == directory ? prefix : prefix + directory + "/";
}

ResultCode refuse_to_install(const char* what) {
  zvlogger::log(LogLevel::Error, "Unable to install %s: this program only uninstalls.\n", what);
  return ResultCode::failure;
}

}  // namespace

std::string join_enabled(const std::vector<ModuleParameter>& parameters) {
  std::string joined;
  for (const auto& [text, enabled] : parameters) {
    if (enabled) {
      joined += joined.empty() ? text : " " + text;
    }
  }
  return joined;
}

DriverInstaller::DriverInstaller(const DriverConfig& config)
    : config_(config),
      driver_prefix_(derive_driver_prefix(config.texts[DriverConfig::kToolkitPath])),
      module_parameters_(join_enabled(kModuleParameters)) {
  std::string& toolkit_path = config_.texts[DriverConfig::kToolkitPath];
  toolkit_path = with_slash(toolkit_path);
  zvlogger::log(LogLevel::Debug, "driver prefix is %s.\n", driver_prefix_.c_str());
  zvlogger::log(LogLevel::Debug, "PARAMS:/%s/\n", module_parameters_.c_str());
  OsRelease release;
  read_os_release(release);
  os_version_ = release.version_id;
}

ResultCode DriverInstaller::install_driver() { return refuse_to_install("the driver stack"); }

ResultCode DriverInstaller::install_firmware() { return refuse_to_install("the firmware"); }

ResultCode DriverInstaller::write_host_configuration() {
  return refuse_to_install("the host configuration");
}

ResultCode DriverInstaller::uninstall() const {
  bool driver_removed = false;
  for (const char* const name : kDriverNames) {
    if (!is_loaded(module_status(name))) {
      zvlogger::log(LogLevel::Info, "Valta driver %s not installed. Continue...\n", name);
      continue;
    }
    zvlogger::log(LogLevel::Info, "Valta driver %s installed. Uninstall...\n", name);
    if (const auto code = remove_driver(name); code != ResultCode::success) {
      zvlogger::log(LogLevel::Print, "Uninstall valta driver %s failed.\n", name);
      return code;
    }
    driver_removed = true;
  }
  if (!driver_removed) {
    zvlogger::log(LogLevel::Info, "No driver installed. try uninstall utils.\n");
    // No driver is loaded, and callers ask for no more. The log has the rest.
    static_cast<void>(remove_driver(""));
  }
  return ResultCode::success;
}

}  // namespace valta
