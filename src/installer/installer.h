#pragma once

#include "uninstall/result_code.h"

namespace valta {

/// How a component of the stack is installed. Objects are held by value, so nothing is deleted
/// through this base.
class Installer {
 public:
  // The order of these three is that of an installation.

  /// Installs the driver stack: kernel sources, module build.
  [[nodiscard]] virtual ResultCode install_driver() = 0;

  /// Installs the firmware and settles the virtual-GPU and DKMS choices.
  [[nodiscard]] virtual ResultCode install_firmware() = 0;

  /// Writes the host configuration: modules loaded at boot, module options, system services,
  /// modules that the initial ramdisk omits.
  [[nodiscard]] virtual ResultCode write_host_configuration() = 0;

 protected:
  Installer() = default;
  Installer(const Installer&) = default;
  Installer& operator=(const Installer&) = default;
  ~Installer() = default;
};

}  // namespace valta
