#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace valta {

/// "1 file", "2 files", "2 directories".
[[nodiscard]] std::string counted(std::size_t count, const std::string& thing);

/// The first few of `names`, with commas, and how many more there are.
[[nodiscard]] std::string some_of(const std::vector<std::string>& names);

}  // namespace valta
