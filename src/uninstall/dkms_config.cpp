#include "uninstall/dkms_config.h"

#include <utility>

#include "log/log.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta {
namespace {

void read_framework_conf(DkmsConfig& config) {
  if (!path_exists(kFrameworkConf)) {
    zvlogger::log(LogLevel::Warning, "dkms conf %s not exist. assume default value.\n",
                  kFrameworkConf);
    return;
  }
  std::string text;
  if (!read_file(kFrameworkConf, text)) {
    zvlogger::log(LogLevel::Warning, "parse dkms file failed. assume default value.\n");
    return;
  }
  if (text.empty()) {
    zvlogger::log(LogLevel::Warning, "dkms conf %s is empty. assume default value.\n",
                  kFrameworkConf);
    return;
  }
  parse_framework_conf(text, config);
}

}  // namespace

DkmsConfig ParseDkmsConfig() {
  zvlogger::log(LogLevel::Info, "parsing dkms config %s\n", kFrameworkConf);
  DkmsConfig config;
  read_framework_conf(config);
  zvlogger::log(LogLevel::Info, "source_tree %s\ndkms_tree %s\ninstall_tree %s\n",
                config.source_tree.c_str(), config.dkms_tree.c_str(), config.install_tree.c_str());
  return config;
}

void parse_framework_conf(std::string_view text, DkmsConfig& config) {
  FieldReader lines(text, '\n');
  while (const auto line = lines.next()) {
    if (line->starts_with('#')) {
      continue;
    }
    if (auto dkms_tree = value_after(*line, "dkms_tree=")) {
      config.dkms_tree = *std::move(dkms_tree);
    } else if (auto source_tree = value_after(*line, "source_tree=")) {
      config.source_tree = *std::move(source_tree);
    } else if (auto install_tree = value_after(*line, "install_tree=")) {
      config.install_tree = *std::move(install_tree);
    }
  }
}

}  // namespace valta
