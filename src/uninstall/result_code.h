#pragma once

#include <cstdint>

namespace valta {

/// How a step of the uninstallation ended. The values reach the exit status of the program, so they
/// keep their numbers.
enum class ResultCode : std::uint8_t {
  success = 0,  ///< done, or skipped with good reason
  failure = 5,
  tolerated = 12,  ///< a service inside a container: skipped; never leaves the manifest's loop
  module_busy = 43,
  dkms_failed = 140,
  file_failed = 141,
  link_failed = 143,
  shared_link_failed = 144,
  service_remains = 145,
  dkms_missing = 146,  ///< no dkms on the search path; never leaves its handler
};

}  // namespace valta
