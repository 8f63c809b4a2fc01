#include "inspect/host/installation.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>

#include "installer/driver_installer.h"
#include "installer/remove_driver.h"
#include "uninstall/dkms_config.h"
#include "uninstall/install_root.h"
#include "utils/files.h"
#include "utils/host.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

constexpr std::size_t kNamesShown = 3;

}  // namespace

Installation read_installation() {
  Installation installation;
  installation.root = default_install_root();
  std::string text;
  read_file(kUninstallManifestPath, text);
  installation.lines = split(text, '\n');
  installation.entries = parse_manifest(text);
  std::string cgroups;
  read_file("/proc/self/cgroup", cgroups);
  const bool in_container = container_line(cgroups).has_value();
  for (const ManifestEntry& entry : installation.entries) {
    if (entry.type == "VALTA") {
      installation.root = entry.path;
    } else if (entry.type == "SERVICE" && !in_container) {
      installation.units.push_back(entry.path);
    }
  }
  if (!in_container) {
    installation.registrations = dkms_registrations();
  }
  return installation;
}

std::string program_in_place(const Installation& installation) {
  return installation.root + "/bin/valta-driver-uninstaller";
}

std::vector<std::string> dkms_trees() {
  std::vector<std::string> trees;
  const auto add = [&](const std::string& file, const char* without) {
    DkmsConfig config;
    config.dkms_tree = without;
    std::string text;
    if (read_file(file, text)) {
      parse_framework_conf(text, config);
    }
    if (!config.dkms_tree.empty() &&
        std::find(trees.begin(), trees.end(), config.dkms_tree) == trees.end()) {
      trees.push_back(config.dkms_tree);
    }
  };
  const std::string file = "/etc/dkms/framework.conf";
  add(file, DkmsConfig().dkms_tree.c_str());
  for (const std::string& name : names_in(file + ".d")) {
    if (name.ends_with(".conf")) {
      add(file + ".d/" + name, "");
    }
  }
  return trees;
}

std::vector<std::string> dkms_registrations() {
  std::vector<std::string> versions;
  for (const std::string& tree : dkms_trees()) {
    for (const std::string& name : names_in(tree + "/valta")) {
      const std::string version = tree + "/valta/" + name;
      const std::string source = version + "/source";
      if (!is_symlink(version) && (is_symlink(source) || is_directory(source))) {
        versions.push_back(version);
      }
    }
  }
  return versions;
}

std::vector<std::string> stack_modules() {
  std::vector<std::string> names(kDriverNames.begin(), kDriverNames.end());
  names.insert(names.end(), {kCompanion, kPeerMemoryCompanion});
  return names;
}

std::vector<std::string> names_in(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(directory, ignored)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string some_of(const std::vector<std::string>& names) {
  std::string text;
  const std::size_t shown = std::min(names.size(), kNamesShown);
  for (std::size_t name = 0; name < shown; ++name) {
    text += (name == 0 ? "" : ", ") + names[name];
  }
  return names.size() == shown ? text
                               : text + " and " + std::to_string(names.size() - shown) + " more";
}

std::vector<std::string> paths_below(const std::string& directory) {
  std::vector<std::string> paths;
  std::error_code error;
  const auto options = fs::directory_options::skip_permission_denied;
  fs::recursive_directory_iterator entry(directory, options, error);
  while (!error && entry != fs::recursive_directory_iterator()) {
    paths.push_back(entry->path());
    entry.increment(error);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace valta::inspect
