#pragma once

#include <array>

#include "utils/system_utilities.h"

namespace valta {

/// Printed between single quotes, so the inner ones make it read as two quoted package names.
inline constexpr const char* kKmodPackage = "module-init-tools' or 'kmod";

/// The tools that an uninstallation needs.
inline constexpr std::array<RequiredUtility, 1> kUninstallUtilities = {
    {{"rmmod", kKmodPackage, false}}};

/// The tools that an installation needs.
inline constexpr std::array<RequiredUtility, 17> kInstallUtilities = {{
    {"ldconfig", "glibc", false},
    {"ldd", "glibc", false},
    {"grep", "grep", false},
    {"dmesg", "util-linux", false},
    {"tail", "coreutils", false},
    {"cut", "coreutils", false},
    {"tr", "coreutils", false},
    {"sed", "sed", false},
    {"objcopy", "binutils", false},
    {"insmod", kKmodPackage, false},
    {"modprobe", kKmodPackage, false},
    {"rmmod", kKmodPackage, false},
    {"lsmod", kKmodPackage, false},
    {"depmod", kKmodPackage, false},
    {"gcc", "gcc", false},
    {"make", "make", false},
    {"ld", "binutils", false},
}};

}  // namespace valta
