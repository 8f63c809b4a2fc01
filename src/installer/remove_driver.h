#pragma once

#include <array>
#include <string>

#include "uninstall/result_code.h"

namespace valta {

/// The modules that use the driver and are unloaded before it.
inline constexpr const char* kCompanion = "zvrfs";
inline constexpr const char* kPeerMemoryCompanion = "zvr_peer_mem_drv";

/// The paths that are deleted even if they were changed.
///
/// "modules-loads.d" has one "s" more than the directory that is read at boot. The file in that
/// directory is in the manifest and is kept if it was changed. With its path here, it would always
/// be deleted.
inline constexpr std::array<const char*, 6> kConfigurationPaths = {
    "/usr/bin/zephanorvalta.sh",
    "/lib/systemd/system/hang_watchdog",
    "/etc/modprobe.d/zephanor.conf",
    "/etc/modules-loads.d/zephanor.conf",
    "/etc/zephanor",
    "/usr/share/zephanor",
};

/// Removes one driver: unloads its companions and the module `name`, then removes the paths of the
/// manifest and the fixed configuration files, and refreshes the module dependency data. An empty
/// `name` means that there is no module to unload.
///
/// The first step that fails ends it. A configuration file that cannot be removed is only logged.
/// Returns `module_busy`, `failure` (a module not unloaded, depmod failed), or the code of the
/// failed manifest entry; success, with nothing but the companions unloaded, when the module is no
/// longer loaded. Logs each outcome, failures at Error. An exception from the manifest or its
/// entries is logged at Error and gives `failure`.
[[nodiscard]] ResultCode remove_driver(const std::string& name);

}  // namespace valta
