#pragma once

#include <string>

namespace valta {

/// The version of the stack, of its DKMS module and of this program.
inline constexpr const char* kStackVersion = "4.1.0";

/// The default installation prefix of the stack, without a "/" at the end.
inline std::string default_install_root() {
  return std::string("/usr/local/valta-") + kStackVersion;
}

}  // namespace valta
