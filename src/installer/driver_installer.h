#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "installer/driver_config.h"
#include "installer/installer.h"
#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// The known names of the driver module, in the order in which they are visited.
inline constexpr std::array<const char*, 2> kDriverNames = {"kq_driver", "zephanor"};

/// A module parameter text and whether it is enabled.
using ModuleParameter = std::pair<std::string, bool>;

/// The texts of the enabled `parameters`, in order, separated by one space.
[[nodiscard]] std::string join_enabled(const std::vector<ModuleParameter>& parameters);

/// Installs and uninstalls the driver stack. This program only uninstalls.
class DriverInstaller final : public Installer {
 public:
  /// Copies `config`, derives the driver prefix and the module parameters, logging both at Debug,
  /// and reads the version of the host's operating system.
  explicit DriverInstaller(const DriverConfig& config);

  /// The three steps of an installation: this program has none of them. Each logs that at Error and
  /// returns `failure`.
  [[nodiscard]] ResultCode install_driver() override;
  [[nodiscard]] ResultCode install_firmware() override;
  [[nodiscard]] ResultCode write_host_configuration() override;

  /// Removes every loaded driver and the installed files; without a loaded driver, only the
  /// installed files. Ends with the code of the first driver that cannot be removed; always
  /// succeeds without a loaded driver. Logs each driver, and a failed one at Print.
  [[nodiscard]] ResultCode uninstall() const;

  /// Where the driver is installed, with a "/" at the end.
  [[nodiscard]] const std::string& driver_prefix() const { return driver_prefix_; }

  /// The host's VERSION_ID; empty if it has none.
  [[nodiscard]] const std::string& os_version() const { return os_version_; }

 private:
  // The texts without a comment, and the entries, are for an installation and stay empty here.
  std::string kernel_version_;
  std::string os_version_;
  DriverConfig config_;  ///< with a "/" at the end of its toolkit path
  std::string kernel_source_;
  std::string firmware_source_;
  std::string driver_prefix_;
  std::string build_log_;
  std::string module_parameters_;
  std::vector<ManifestEntry> entries_;
};

}  // namespace valta
