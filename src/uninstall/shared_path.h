#pragma once

#include <string>

namespace valta {

// The files below the installation prefix by which the packages are known to be installed.
inline constexpr const char* kToolkitMarker = "lib64/libcudart.so";
inline constexpr const char* kDriverMarker = "bin/valta-driver-uninstaller";

// Both below: an empty `root` stands for the default one, and under a root with a NUL byte, which
// nobody can look into, everything counts as installed.

/// Whether the toolkit is installed under `root`.
[[nodiscard]] bool ToolkitInstalled(const std::string& root);

/// Whether the driver is installed under `root`.
[[nodiscard]] bool DriverInstalled(const std::string& root);

/// Whether `path`, which the toolkit and the driver share, must stay because one of them is still
/// installed under `InstalledPath`. Logs which one at Info, the toolkit first.
///
/// The first call looks, and its answer holds for the rest of the run: what the run deletes later,
/// and an installation prefix set later, do not change it.
[[nodiscard]] bool shared_path_in_use(const std::string& path);

}  // namespace valta
