#pragma once

#include <array>
#include <string_view>

namespace valta {

/// Paths below the installation prefix that the toolkit and the driver own together. The installer
/// records them as "RFILE" and "RLINK".
inline constexpr std::array<std::string_view, 9> ReservedPaths = {
    "bin/zvsmi",
    "lib",
    "lib64/libcuda.so",
    "lib64/libcuda.so.1",
    "lib64/libzvml.so",
    "lib64/libzvthunk.so",
    "lib64/libzvlogger.so",
    "EULA.txt",
    "copyright",
};

/// Whether the part of `path` after the length of `prefix`, without leading "/" characters, is a
/// reserved path. The beginning of `path` is not compared with `prefix`.
[[nodiscard]] bool IsReservedPath(std::string_view path, std::string_view prefix);

}  // namespace valta
