#include "inspect/host/dkms.h"

#include <algorithm>
#include <string_view>

#include "uninstall/dkms.h"
#include "uninstall/dkms_config.h"
#include "utils/listing.h"
#include "utils/regular_file.h"
#include "utils/text.h"

namespace valta::inspect {

namespace {

/// The value that a shell gives to dkms_tree in the text of a configuration; empty for none. A
/// comment after it, quotes and spaces are not part of it.
std::string tree_for_shell(const std::string& text) {
  constexpr std::string_view key = "dkms_tree=";
  std::string tree;
  for (std::string line : split(text, '\n')) {
    line.erase(0, line.find_first_not_of(" \t"));
    if (line.starts_with("export ")) {
      line.erase(0, line.find_first_not_of(' ', std::string_view("export").size()));
    }
    if (line.starts_with(key)) {
      std::string value = line.substr(key.size());
      const char quote = value.starts_with('"') || value.starts_with('\'') ? value.front() : ' ';
      value.erase(0, quote == ' ' ? 0 : 1);
      tree = value.substr(0, value.find_first_of(quote == ' ' ? " \t;#" : std::string(1, quote)));
    }
  }
  return tree;
}

}  // namespace

std::vector<std::string> dkms_trees() {
  std::vector<std::string> trees;
  bool is_set = false;
  const auto add = [&](const std::string& tree) {
    is_set = is_set || !tree.empty();
    if (!tree.empty() && std::find(trees.begin(), trees.end(), tree) == trees.end()) {
      trees.push_back(tree);
    }
  };
  std::string text;
  read_regular_file(kFrameworkConf, text);
  DkmsConfig config;
  parse_framework_conf(text, config);
  trees.push_back(config.dkms_tree);
  add(tree_for_shell(text));
  const std::string directory = std::string(kFrameworkConf) + ".d";
  for (const std::string& name : names_in(directory)) {
    if (name.ends_with(".conf") && read_regular_file(directory + "/" + name, text)) {
      add(tree_for_shell(text));
    }
  }
  if (!is_set) {
    add(DkmsConfig().dkms_tree);
  }
  return trees;
}

std::vector<std::string> dkms_registrations() {
  std::vector<std::string> versions;
  for (const std::string& tree : dkms_trees()) {
    for (const std::string& name : names_in(tree + "/valta")) {
      const std::string version = tree + "/valta/" + name;
      if (is_version_directory(version)) {
        versions.push_back(version);
      }
    }
  }
  return versions;
}

}  // namespace valta::inspect
