#pragma once

#include <array>

namespace valta {

#pragma pack(push, 1)
/// A program that must be on the search path.
struct RequiredUtility {
  const char* name;     ///< as typed on a command line
  const char* package;  ///< the distribution's package(s) that bring it, for the message
  bool found;           ///< written by `check_system_utilities`
};
#pragma pack(pop)
static_assert(sizeof(RequiredUtility) == 2 * sizeof(const char*) + 1, "the record is packed");

/// Printed between single quotes, so the inner ones make it read as two quoted package names.
inline constexpr const char* kKmodPackage = "module-init-tools' or 'kmod";

/// What uninstalling needs.
inline constexpr std::array<RequiredUtility, 1> kUninstallUtilities = {
    {{"rmmod", kKmodPackage, false}}};

/// What installing needs.
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

/// Looks every utility of `table` up and writes its `found`. Returns whether all were found.
///
/// Logs a Debug line for each one found and an Error line for each one missing. Rewrites `PATH` as
/// `find_in_path_executable` does. A null `table` gives false, a `count` of 0 or less true. Rows
/// are counted in 8 bits: a `count` over 255 is refused with an Error line and gives false.
[[nodiscard]] bool check_system_utilities(RequiredUtility* table, int count);

}  // namespace valta
