#pragma once

#include <string>

#include "uninstall/result_code.h"

namespace valta {

/// Removes one driver: unloads its companions and the module `name`, then removes what the manifest
/// lists and the fixed configuration files, and refreshes the module dependency data. An empty
/// `name` means that there is no module to unload.
///
/// The first step that fails ends it, but for a configuration file that cannot be removed, which is
/// only logged. Returns `module_busy`, `failure` (a module not unloaded, depmod failed), or the
/// code of the failed manifest entry; success, with nothing but the companions unloaded, when the
/// module is no longer loaded. Logs each outcome, failures at Error. Does not throw what reading
/// the manifest and handling its entries throw: logs it at Error and returns `failure`.
[[nodiscard]] ResultCode remove_driver(const std::string& name);

}  // namespace valta
