#pragma once

#include <string>
#include <string_view>

namespace valta {

inline constexpr const char* kFrameworkConf = "/etc/dkms/framework.conf";

/// Where DKMS keeps its things, with its own defaults. Only `dkms_tree` matters to the removal.
struct DkmsConfig {
  std::string source_tree = "/usr/src";
  std::string dkms_tree = "/var/lib/dkms";
  std::string install_tree = "/lib/modules";
};

/// Reads /etc/dkms/framework.conf. Logs the values at Info, and a Warning where the defaults stand
/// in for a file that is missing, empty, or cannot be read to its end. Never fails.
[[nodiscard]] DkmsConfig ParseDkmsConfig();

/// Overwrites `config` with the settings in the text of a framework configuration.
///
/// Only a "#" in the first column makes a comment. A key counts wherever it stands in its line; of
/// a line with several, the first of dkms_tree, source_tree, install_tree wins. Double quotes are
/// dropped from the value and nothing else is, a carriage return included. A later line wins.
void parse_framework_conf(std::string_view text, DkmsConfig& config);

}  // namespace valta
