#include "inspect/remains.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include "inspect/modules.h"
#include "inspect/units.h"
#include "installer/remove_driver.h"
#include "utils/files.h"
#include "utils/search_path.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

constexpr int kActive = 0;
constexpr int kUnknown = 4;
constexpr std::size_t kNamesShown = 3;

bool is_there(const std::string& path) {
  return !has_nul(path) && (path_exists(path) || is_symlink(path));
}

std::string program_in_place(const Installation& installation) {
  return installation.root + "/bin/valta-driver-uninstaller";
}

/// What the run gave no reason for is "left"; what it gave one for and is gone by now, no matter.
void settle_kept(const std::string& root, const Installation& installation, Report& report) {
  std::erase_if(report.kept, [&](const Kept& kept) { return !is_there(root + kept.path); });
  for (const ManifestEntry& entry : installation.entries) {
    const bool names_path =
        entry.type != "VALTA" && entry.type != "SERVICE" && entry.type != "DKMS";
    const bool known = std::any_of(report.kept.begin(), report.kept.end(),
                                   [&](const Kept& kept) { return kept.path == entry.path; });
    if (names_path && !known && entry.path.starts_with('/') && is_there(root + entry.path)) {
      report.kept.push_back({entry.path, "left"});
    }
  }
}

void explain_shared(const Installation& installation, Report& report) {
  const auto count = [&](std::string_view reason) {
    return std::count_if(report.kept.begin(), report.kept.end(),
                         [&](const Kept& kept) { return kept.reason == reason; });
  };
  if (const auto shared = count("toolkit"); shared > 0) {
    report.add("shared-kept", Severity::keeps,
               std::to_string(shared) +
                   " shared paths stay for the toolkit. Uninstall it first if it is to go.",
               installation.root + "/lib64/libcudart.so");
  }
  if (const auto shared = count("program"); shared > 0) {
    report.add("shared-kept", Severity::keeps,
               std::to_string(shared) +
                   " shared paths stay for the program in its own place. Move it away and run it "
                   "from there.",
               program_in_place(installation), "mv " + program_in_place(installation) + " /root/");
  }
  if (const auto left = count("left"); left > 0) {
    report.add("manifest-left", Severity::keeps,
               std::to_string(left) + " paths of the manifest are left.", kUninstallManifestPath,
               std::string("valta-driver-inspect ") + report.verb + " --verbose");
  }
}

/// The first of `paths`, and how many more there are, all without the first `prefix` characters.
std::string names_of_some(const std::vector<std::string>& paths, std::size_t prefix) {
  std::string text;
  for (std::size_t path = 0; path < std::min(paths.size(), kNamesShown); ++path) {
    text += (path == 0 ? "" : ", ") + paths[path].substr(prefix);
  }
  const std::size_t more = paths.size() - std::min(paths.size(), kNamesShown);
  return more == 0 ? text : text + " and " + std::to_string(more) + " more";
}

void explain_kept(const std::string& root, const Kept& kept, Report& report) {
  const std::string_view reason = kept.reason;
  const bool is_unit = kept.path.starts_with("/lib/systemd/system/");
  if (reason == "changed" && is_unit) {
    const std::string unit = fs::path(kept.path).stem();
    report.add("unit-changed", Severity::keeps,
               kept.path + " was changed, so it stays; its unit is disabled and stopped.",
               kept.path, "rm " + kept.path + " && systemctl daemon-reload");
  } else if (reason == "changed") {
    report.add("file-changed", Severity::keeps,
               kept.path + " was changed since installation, so it stays.", kept.path,
               "rm " + kept.path);
  } else if (reason == "not-compared") {
    report.add("file-not-compared", Severity::keeps,
               "The md5sum of " + kept.path + " could not be had, so it stays.", kept.path,
               "md5sum '" + kept.path + "'");
  } else if (reason == "not-empty") {
    const std::vector<std::string> inside = paths_below(root + kept.path);
    report.add("directory-stays", Severity::keeps,
               kept.path + (inside.empty()
                                ? " was not empty when the run came to it, so it stays."
                                : " stays, as it holds " +
                                      names_of_some(inside, (root + kept.path).size() + 1) + "."),
               kept.path, inside.empty() ? "rmdir " + kept.path : "ls -lA " + kept.path);
  }
}

void look_at_dkms(const std::string& root, Report& report) {
  for (const std::string& version : dkms_registrations(root)) {
    const std::string name = last_component(version);
    const bool has_sources = is_directory(root + "/usr/src/valta-" + name);
    report.dkms.push_back({name, "registered"});
    report.add("dkms-registered", Severity::keeps, "DKMS still has valta/" + name + ".", version,
               has_sources ? "dkms remove valta/" + name + " --all" : "rm -r " + version);
  }
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(root + "/usr/src", ignored)) {
    const std::string path = entry.path().string().substr(root.size());
    if (path.starts_with("/usr/src/valta-")) {
      report.dkms.push_back({path.substr(std::string_view("/usr/src/valta-").size()), "sources"});
      report.add("dkms-sources", Severity::keeps, "DKMS sources are left.", path, "rm -r " + path);
    }
  }
  const std::vector<std::string> names = stack_modules();
  for (const std::string& path : paths_below(root + "/lib/modules/")) {
    const std::string file = last_component(path);
    const std::string name = file.substr(0, file.find('.'));
    if (file.find(".ko") != std::string::npos &&
        std::find(names.begin(), names.end(), name) != names.end()) {
      report.add("module-built", Severity::keeps, "A built module is left.",
                 path.substr(root.size()), "rm " + path.substr(root.size()) + " && depmod");
    }
  }
}

/// Links in systemd's directory to units of the stack that are gone.
void look_at_unit_links(const std::string& root, const Installation& installation, Report& report) {
  for (const std::string& path : paths_below(root + "/etc/systemd/system")) {
    const std::string name = last_component(path);
    const bool is_ours =
        std::any_of(installation.units.begin(), installation.units.end(), [&](const auto& unit) {
          return name == full_unit_name(unit) ||
                 (unit.find('@') != std::string::npos &&
                  name.starts_with(unit.substr(0, unit.find('@') + 1)));
        });
    if (is_ours && is_symlink(path) && unit_files(root, name).empty()) {
      report.add("unit-link", Severity::keeps, "A link to a unit that is gone is left.",
                 path.substr(root.size()), "rm " + path.substr(root.size()));
    }
  }
}

/// The exit status of `systemctl status UNIT`, without a shell: names of units come from the
/// manifest.
int ask_systemd(const std::string& unit) {
  std::array<const char*, 4> command = {"systemctl", "status", unit.c_str(), nullptr};
  posix_spawn_file_actions_t silent;
  posix_spawn_file_actions_init(&silent);
  posix_spawn_file_actions_addopen(&silent, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&silent, STDOUT_FILENO, STDERR_FILENO);
  pid_t child = -1;
  int status = 0;
  const bool asked = posix_spawnp(&child, "systemctl", &silent, nullptr,
                                  const_cast<char* const*>(command.data()), environ) == 0 &&
                     waitpid(child, &status, 0) == child && WIFEXITED(status);
  posix_spawn_file_actions_destroy(&silent);
  return asked ? WEXITSTATUS(status) : kUnknown;
}

}  // namespace

void look_at_remains(const std::string& root, const Installation& installation, Report& report) {
  settle_kept(root, installation, report);
  explain_shared(installation, report);
  for (const Kept& kept : report.kept) {
    explain_kept(root, kept, report);
  }
  look_at_dkms(root, report);
  look_at_unit_links(root, installation, report);
  for (const char* const path : kConfigurationPaths) {
    if (is_there(root + path)) {
      report.add("configuration-left", Severity::keeps, "Configuration is left.", path,
                 std::string("rm -r ") + path);
    }
  }
}

void look_at_known_units(const Installation& installation, Report& report) {
  if (!find_in_path_executable("systemctl")) {
    return;
  }
  for (const std::string& unit : installation.units) {
    const int status = ask_systemd(unit);
    if (status == kUnknown) {
      report.services.push_back({unit, "unknown"});
      continue;
    }
    const bool active = status == kActive;
    report.services.push_back({unit, active ? "active" : "known"});
    report.add(active ? "unit-active" : "unit-known", Severity::keeps,
               "systemd still knows " + unit + (active ? ", which is active." : "."), unit,
               active ? "systemctl disable --now " + unit : "systemctl cat " + unit);
  }
}

void look_at_loaded_modules(Report& report) {
  const std::vector<Module> modules = parse_modules(loaded_modules());
  for (const std::string& name : stack_modules()) {
    if (find_module(modules, name) != nullptr) {
      report.add("module-loaded", Severity::keeps, "The module " + name + " is loaded.", name,
                 "rmmod " + name);
    }
  }
}

}  // namespace valta::inspect
