#pragma once

#include <string>

namespace valta {

// Each package counts as installed while its file exists below the installation prefix.
inline constexpr const char* kToolkitMarker = "lib64/libcudart.so";
inline constexpr const char* kDriverMarker = "bin/valta-driver-uninstaller";

// Both below: an empty `root` means the default one. No file can be checked below a root with a NUL
// byte, so everything counts as installed there.

/// Whether the toolkit is installed under `root`.
[[nodiscard]] bool ToolkitInstalled(const std::string& root);

/// Whether the driver is installed under `root`.
[[nodiscard]] bool DriverInstalled(const std::string& root);

/// Whether `path`, which the toolkit and the driver share, must be kept because one of them is
/// still installed under `InstalledPath`. Logs which one at Info, the toolkit first.
///
/// The first call checks, and its result is used for the whole run, even if the run later deletes a
/// checked file or sets another installation prefix.
[[nodiscard]] bool shared_path_in_use(const std::string& path);

}  // namespace valta
