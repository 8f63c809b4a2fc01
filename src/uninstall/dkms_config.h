#pragma once

#include <string>
#include <string_view>

namespace valta {

inline constexpr const char* kFrameworkConf = "/etc/dkms/framework.conf";

/// The directories of DKMS, with its defaults. Only `dkms_tree` is used.
struct DkmsConfig {
  std::string source_tree = "/usr/src";
  std::string dkms_tree = "/var/lib/dkms";
  std::string install_tree = "/lib/modules";
};

/// Reads /etc/dkms/framework.conf. Logs the values at Info, and a Warning if the defaults are used
/// because the file is missing, empty, or cannot be read to its end. Never fails.
[[nodiscard]] DkmsConfig ParseDkmsConfig();

/// Overwrites `config` with the settings in the text of a framework configuration.
///
/// Only a "#" in the first column makes a comment. A key counts anywhere in its line; of several
/// keys in a line, the first of dkms_tree, source_tree, install_tree wins. Only double quotes are
/// dropped from the value: a carriage return is kept. A later line wins.
void parse_framework_conf(std::string_view text, DkmsConfig& config);

}  // namespace valta
