#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace valta {

#pragma pack(push, 1)
/// The configuration for an installation of the driver. Its fields follow each other without
/// padding, so the texts lie unaligned. Flags that nobody sets are zero.
struct DriverConfig {
  /// The place of the toolkit path among the texts; the others are for an installation.
  static constexpr std::size_t kToolkitPath = 2;

  std::array<std::uint8_t, 3> flags{};
  std::array<std::string, 6> texts;
};
#pragma pack(pop)
static_assert(offsetof(DriverConfig, texts) == 3 &&
                  sizeof(DriverConfig) == 3 + 6 * sizeof(std::string),
              "the record is packed");

}  // namespace valta
