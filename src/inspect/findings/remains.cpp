#include "inspect/findings/remains.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <set>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include "inspect/host/modules.h"
#include "inspect/host/units.h"
#include "inspect/report/run_check.h"
#include "installer/remove_driver.h"
#include "utils/files.h"
#include "utils/search_path.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

bool is_there(const std::string& path) {
  return !has_nul(path) && (path_exists(path) || is_symlink(path));
}

/// What the run gave no reason for is "left"; what it gave one for and is gone by now, no matter.
void settle_kept(const Installation& installation, Report& report) {
  std::erase_if(report.kept, [&](const Kept& kept) { return !is_there(kept.path); });
  std::set<std::string> known;
  for (const Kept& kept : report.kept) {
    known.insert(kept.path);
  }
  for (const ManifestEntry& entry : installation.entries) {
    const bool names_path =
        entry.type != "VALTA" && entry.type != "SERVICE" && entry.type != "DKMS";
    if (names_path && entry.path.starts_with('/') && is_there(entry.path) &&
        known.insert(entry.path).second) {
      report.kept.push_back({entry.path, "left"});
    }
  }
}

std::size_t count_kept(const Report& report, std::string_view reason) {
  return static_cast<std::size_t>(
      std::count_if(report.kept.begin(), report.kept.end(),
                    [&](const Kept& kept) { return kept.reason == reason; }));
}

void explain_shared(const Installation& installation, Report& report) {
  if (const auto shared = count_kept(report, "toolkit"); shared > 0) {
    report.add("shared-kept", Severity::keeps,
               "Kept for the toolkit: " + counted(shared, "shared path") +
                   ". Uninstall it first if it is to go.",
               installation.root + "/lib64/libcudart.so",
               "ls -l " + installation.root + "/lib64/libcudart.so");
  }
  if (const auto shared = count_kept(report, "program"); shared > 0) {
    report.add("shared-kept", Severity::keeps,
               "Kept for the program in its own place: " + counted(shared, "shared path") +
                   ". Move it away and run it from there.",
               program_in_place(installation),
               path_exists(program_in_place(installation))
                   ? "mv " + program_in_place(installation) + " /root/"
                   : "valta-driver-uninstaller");
  }
}

/// Where to run the program again from.
std::string program_of(const Installation& installation) {
  const std::string program = program_in_place(installation);
  return path_exists(program) ? program : "valta-driver-uninstaller";
}

void explain_kept(const Kept& kept, Report& report) {
  const std::string_view reason = kept.reason;
  if (reason == "changed" && kept.path.starts_with("/lib/systemd/system/")) {
    report.add("unit-changed", Severity::keeps,
               kept.path + " counts as changed, so it stays; its unit is disabled and stopped.",
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
    const std::vector<std::string> inside = names_in(kept.path);
    report.add("directory-stays", Severity::keeps,
               kept.path + (inside.empty() ? " was not empty when the run came to it, so it stays."
                                           : " stays, as it holds " + some_of(inside) + "."),
               kept.path, inside.empty() ? "rmdir " + kept.path : "ls -lA " + kept.path);
  } else if (reason == "left" && !ended_in_the_manifest(report)) {
    report.add("manifest-left", Severity::keeps,
               kept.path +
                   " stays: it could not be removed, is not what its entry says, or was put there "
                   "later.",
               kept.path, "ls -ld " + kept.path);
  }
}

/// The kernel release in the path of a module.
std::string kernel_of(const std::string& path) {
  const std::string release = path.substr(path.find("/modules/") + 9);
  return release.substr(0, release.find('/'));
}

void look_at_dkms(Report& report) {
  if (report.log.find("in side docker") != std::string::npos) {
    return;  // left to the host
  }
  for (const std::string& version : dkms_registrations()) {
    const std::string name = last_component(version);
    const bool has_sources = is_directory(std::string(kSourcePrefix) + name);
    report.dkms.push_back({name, "registered"});
    report.add("dkms-registered", Severity::keeps, "DKMS keeps valta/" + name + ".", version,
               has_sources ? "dkms remove valta/" + name + " --all" : "rm -r " + version);
  }
  for (const std::string& name : names_in("/usr/src")) {
    const std::string path = "/usr/src/" + name;
    if (path.starts_with(kSourcePrefix)) {
      report.dkms.push_back({path.substr(kSourcePrefix.size()), "sources"});
      report.add("dkms-sources", Severity::keeps, "DKMS sources stay.", path, "rm -r " + path);
    }
  }
  const std::vector<std::string> names = stack_modules();
  for (const std::string& path : paths_below("/lib/modules/")) {
    const std::string file = last_component(path);
    const std::string name = file.substr(0, file.find('.'));
    if (file.find(".ko") != std::string::npos &&
        std::find(names.begin(), names.end(), name) != names.end()) {
      report.add("module-built", Severity::keeps, "A built module stays.", path,
                 "rm " + path + " && depmod " + kernel_of(path));
    }
  }
}

/// Links in systemd's directory to units of the stack that are gone.
void look_at_unit_links(const Installation& installation, Report& report) {
  for (const std::string& path : paths_below("/etc/systemd/system")) {
    const std::string name = last_component(path);
    const bool is_ours =
        std::any_of(installation.units.begin(), installation.units.end(), [&](const auto& unit) {
          return name == full_unit_name(unit) ||
                 (unit.find('@') != std::string::npos &&
                  name.starts_with(unit.substr(0, unit.find('@') + 1)));
        });
    if (is_ours && is_symlink(path) && unit_files(name).empty()) {
      report.add("unit-link", Severity::keeps, "A link to a unit that is gone stays.", path,
                 "systemctl stop " + name + "; rm " + path);
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
  return asked ? WEXITSTATUS(status) : kMisused;
}

}  // namespace

void look_at_remains(const Installation& installation, Report& report) {
  settle_kept(installation, report);
  explain_shared(installation, report);
  const auto left = count_kept(report, "left");
  if (left > 0 && ended_in_the_manifest(report)) {
    report.add("manifest-left", Severity::keeps,
               "The run ends in the middle of the manifest and leaves " + counted(left, "path") +
                   " of it.",
               kUninstallManifestPath, program_of(installation));
  }
  for (const Kept& kept : report.kept) {
    explain_kept(kept, report);
  }
  look_at_dkms(report);
  look_at_unit_links(installation, report);
  for (const char* const path : kConfigurationPaths) {
    if (is_there(path)) {
      report.add("configuration-left", Severity::keeps, "Configuration stays.", path,
                 std::string("rm -r ") + path);
    }
  }
}

void tell_to_run_again(const Installation& installation, Report& report) {
  settle_kept(installation, report);
  if (!report.kept.empty()) {
    report.add("run-again", Severity::keeps,
               "The run left " + counted(report.kept.size(), "path") +
                   " of the manifest. Mend what was in the way, and run the program again.",
               kUninstallManifestPath, program_of(installation));
  }
}

void look_at_known_units(const Installation& installation, Report& report) {
  if (!find_in_path_executable("systemctl")) {
    return;
  }
  for (const std::string& unit : installation.units) {
    const int status = ask_systemd(unit);
    const bool active = status == kActive;
    const char* const state = active                ? "active"
                              : status == kInactive ? "known"
                              : status == kUnknown  ? "unknown"
                                                    : "untold";
    report.services.push_back({unit, state});
    if (active || status == kInactive) {
      report.add(active ? "unit-active" : "unit-known", Severity::keeps,
                 "systemd knows " + unit + (active ? ", which is active." : " from a file of it."),
                 unit, active ? "systemctl disable --now " + unit : "systemctl cat " + unit);
    }
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
