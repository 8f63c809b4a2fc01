#include "uninstall/shared_path.h"

#include <filesystem>
#include <optional>

#include "log/log.h"
#include "uninstall/install_root.h"
#include "uninstall/manifest_state.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta {
namespace {

struct InstalledPackages {
  bool toolkit;
  bool driver;
};

std::optional<InstalledPackages> probed;

/// Below a root with a NUL byte, no path can be checked: the marker may exist.
bool marker_exists(const std::string& root, const char* marker) {
  return has_nul(root) ||
         path_exists(std::filesystem::path(root.empty() ? default_install_root() : root) / marker);
}

}  // namespace

bool ToolkitInstalled(const std::string& root) { return marker_exists(root, kToolkitMarker); }

bool DriverInstalled(const std::string& root) { return marker_exists(root, kDriverMarker); }

bool shared_path_in_use(const std::string& path) {
  if (!probed) {
    probed = {ToolkitInstalled(InstalledPath), DriverInstalled(InstalledPath)};
  }
  if (probed->toolkit) {
    zvlogger::log(LogLevel::Info, "Uninstall: Toolkit not uninstalled. Skipping remove %s.\n",
                  path.c_str());
    return true;
  }
  if (probed->driver) {
    zvlogger::log(LogLevel::Info, "Uninstall: Driver not uninstalled. Skipping remove %s.\n",
                  path.c_str());
    return true;
  }
  return false;
}

}  // namespace valta
