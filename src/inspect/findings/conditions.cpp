#include "inspect/findings/conditions.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "inspect/host/units.h"
#include "installer/remove_driver.h"
#include "log/log.h"
#include "uninstall/manifest_handlers.h"
#include "utils/files.h"
#include "utils/search_path.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

const std::string kManifest = kUninstallManifestPath;

std::string editor_at(std::size_t line) { return "vi +" + std::to_string(line) + " " + kManifest; }

struct Damage {
  Severity severity;
  const char* text;
};

bool has_control_byte(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return c < ' ' || c == 0x7F; });
}

std::optional<Damage> damage_of(const ManifestEntry& entry, const std::string& line) {
  if (!ManifestHandlers.contains(entry.type)) {
    return {{Severity::blocks, "has a type that is not known: a run stops there"}};
  }
  const bool is_file = entry.type == "FILE" || entry.type == "RFILE";
  const std::vector<std::string> fields = split(line, ' ');
  if (has_control_byte(line) || fields.size() > 3) {
    return {{Severity::keeps, "has a blank, or a byte that is no printable character, in a field"}};
  }
  const bool names_path = entry.type != "SERVICE" && entry.type != "DKMS";
  if (fields.size() < 2 || fields[1].empty() || (names_path && !entry.path.starts_with('/'))) {
    return {{Severity::keeps, "names nothing that could be removed"}};
  }
  if (is_file && !path_exists(entry.path)) {
    return {};
  }
  if ((is_file || entry.type == "SERVICE") && line.find('\'') != std::string::npos) {
    return {{Severity::keeps, "has a quote, which no shell command of a run gets right"}};
  }
  if (is_file && (fields.size() < 3 || fields[2].empty())) {
    return {{Severity::keeps, "has no digest, so its file counts as changed"}};
  }
  if (entry.type == "SERVICE" && entry.digest.empty()) {
    return {{Severity::note, "has no digest: its unit file goes, changed or not"}};
  }
  return {};
}

/// The number of the first line that `fits`; 0 when none does.
template <typename Fits>
std::size_t line_of(const Installation& installation, const Fits& fits) {
  const auto& entries = installation.entries;
  const auto found = std::find_if(entries.begin(), entries.end(), fits);
  return found == entries.end() ? 0 : static_cast<std::size_t>(found - entries.begin()) + 1;
}

/// The unit directory where the stack's installer puts its files, by both of its names.
bool is_installed_place(const std::string& file) {
  return file.starts_with("/lib/systemd/system/") || file.starts_with("/usr/lib/systemd/system/");
}

void look_at_unit(const std::string& unit, Report& report) {
  if (is_bare_template(unit)) {
    report.add("unit-template", Severity::blocks,
               unit +
                   " is a template: its instances would run on, and the run end with 145. "
                   "Stop them, and give each a line of its own in the manifest.",
               unit, "systemctl stop '" + unit + "*'");
    return;
  }
  if (refuses_to_stop(unit)) {
    report.add("unit-refuses", Severity::blocks,
               unit + " refuses to be stopped by hand, so systemd would still know it.", unit,
               "systemctl kill " + unit);
  }
  for (const std::string& file : unit_files(unit)) {
    std::error_code none;
    const std::string target = fs::read_symlink(file, none);
    if (target == "/dev/null") {
      report.add(
          "unit-masked", Severity::blocks, unit + " is masked, so systemd would still know it.",
          file,
          (file.starts_with("/run/") ? "systemctl unmask --runtime " : "systemctl unmask ") + unit);
    } else if (target.empty() && !is_installed_place(file)) {
      report.add("unit-copied", Severity::blocks,
                 unit + " has a file elsewhere, so systemd would still know it.", file,
                 file.starts_with("/run/systemd/generator")
                     ? "systemctl cat " + unit  // names what it was made from
                     : "rm " + file + " && systemctl daemon-reload");
    }
  }
}

/// The instances of `unit`'s template that are enabled, or run, by their control groups.
std::vector<std::string> instances_of(const std::string& unit) {
  const std::string prefix = unit.substr(0, unit.find('@') + 1);
  std::vector<std::string> names;
  for (const std::string& link : paths_below("/etc/systemd/system")) {
    if (path_exists(link)) {
      names.push_back(last_component(link));
    }
  }
  for (const std::string hierarchy : {"/sys/fs/cgroup", "/sys/fs/cgroup/systemd"}) {
    const std::string slices = hierarchy + "/system.slice/";
    for (const std::string& slice : names_in(slices)) {
      for (const std::string& group : names_in(slices + slice)) {
        names.push_back(group);
      }
    }
  }
  std::vector<std::string> instances;
  for (const std::string& name : names) {
    if (name.starts_with(prefix) && name.ends_with(".service") && name != prefix + ".service") {
      instances.push_back(name.substr(0, name.rfind('.')));
    }
  }
  return instances;
}

struct Tool {
  const char* name;
  const char* package;
  Severity severity;
  const char* without;
};

constexpr std::array<Tool, 8> kTools = {{
    {"rmmod", "kmod", Severity::blocks, "a run does nothing at all"},
    {"sh", "dash or bash", Severity::blocks, "no command of a run can be started"},
    {"md5sum", "coreutils", Severity::keeps, "no file can be compared, so all of them stay"},
    {"rm", "coreutils", Severity::keeps, "the configuration and the DKMS sources stay"},
    {"depmod", "kmod", Severity::blocks, "the module dependency data stays as it is"},
    {"systemctl", "systemd", Severity::blocks, "the first service entry ends the run"},
    {"systemd-escape", "systemd", Severity::note, "the slices of templates are not stopped"},
    {"dkms", "dkms", Severity::keeps, "what DKMS has of the module stays"},
}};

constexpr std::array<const char*, 6> kSystemDirectories = {
    "/bin", "/sbin", "/usr/bin", "/usr/sbin", "/usr/local/bin", "/usr/local/sbin"};

bool is_needed(const Tool& tool, const Installation& installation) {
  const std::string_view name = tool.name;
  return (!name.starts_with("system") || !installation.units.empty()) &&
         (name != "dkms" || !installation.registrations.empty());
}

bool is_system_directory(const std::string& directory) {
  return std::find(kSystemDirectories.begin(), kSystemDirectories.end(), directory) !=
         kSystemDirectories.end();
}

/// A run looks into the first tree alone.
void look_at_dkms_tree(const Installation& installation, Report& report) {
  const std::vector<std::string> trees = dkms_trees();
  for (const std::string& version : installation.registrations) {
    if (!version.starts_with(trees.front() + "/")) {
      const std::string name = "valta/" + last_component(version);
      report.add("dkms-tree", Severity::keeps,
                 "DKMS has " + name + " in a tree where a run does not look.", version,
                 "dkms remove " + name + " --all");
    }
  }
}

}  // namespace

void look_at_manifest(const Installation& installation, Report& report) {
  if (installation.lines.empty()) {
    if (path_exists(installation.root)) {
      report.add(
          "manifest-missing", Severity::keeps,
          "The uninstall manifest is missing, or empty, so a run leaves the files, links and "
          "services.",
          kManifest, "find " + installation.root);
    }
    return;
  }
  for (std::size_t line = 0; line < installation.lines.size(); ++line) {
    if (const auto damage = damage_of(installation.entries[line], installation.lines[line])) {
      report.add("manifest-line", damage->severity,
                 "Line " + std::to_string(line + 1) + " of the manifest " + damage->text + ".",
                 kManifest + ":" + std::to_string(line + 1), editor_at(line + 1));
    }
  }
  const auto sources = line_of(installation, [](const ManifestEntry& entry) {
    return entry.type.ends_with("FILE") && entry.path.starts_with(kSourcePrefix);
  });
  const auto dkms = line_of(installation, [](const auto& entry) { return entry.type == "DKMS"; });
  if (sources != 0 && sources < dkms && !installation.registrations.empty()) {
    report.add("dkms-order", Severity::blocks,
               "Line " + std::to_string(sources) + " takes the DKMS sources away before line " +
                   std::to_string(dkms) + " has DKMS remove the module. Move the DKMS line up.",
               kManifest + ":" + std::to_string(dkms), editor_at(dkms));
  }
}

void look_at_units(const Installation& installation, Report& report) {
  std::set<std::string> seen;
  for (const std::string& unit : installation.units) {
    if (seen.insert(unit).second) {
      look_at_unit(unit, report);
    }
  }
}

void look_at_instances(const Installation& installation, Report& report) {
  std::set<std::string> known(installation.units.begin(), installation.units.end());
  for (const std::string& unit : installation.units) {
    if (unit.find('@') == std::string::npos) {
      continue;
    }
    for (const std::string& instance : instances_of(unit)) {
      if (known.insert(instance).second) {
        report.add("unit-instance", Severity::keeps,
                   instance + " has no line in the manifest: a run leaves it, without its file.",
                   instance, "systemctl disable --now " + instance);
      }
    }
  }
}

void look_at_tools(const Installation& installation, Report& report) {
  for (const Tool& tool : kTools) {
    if (!is_needed(tool, installation)) {
      continue;
    }
    const std::string name = tool.name;
    if (!find_in_path_executable(name)) {
      report.add(
          "tool-missing", tool.severity,
          "There is no " + name + ", of the package " + tool.package + ": " + tool.without + ".",
          name, "command -v " + name);
    } else if (const std::string place = which(name);
               !is_system_directory(fs::path(place).parent_path())) {
      report.add(
          "tool-odd", Severity::note, "The first " + name + " of PATH is not the system's.", place,
          "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root valta-driver-inspect before");
    }
  }
  if (!installation.units.empty() && !is_directory("/run/systemd/system")) {
    report.add("systemd-missing", Severity::blocks,
               "systemd does not run, so the first service entry ends the run with 145. Take these "
               "entries out of the manifest.",
               kManifest, "vi +/SERVICE " + kManifest);
  }
  look_at_dkms_tree(installation, report);
}

void look_at_log_space(Report& report) {
  fs::path place = kLogPath;
  struct statvfs room {};
  while (statvfs(place.c_str(), &room) != 0 && place.has_relative_path()) {
    place = place.parent_path();
  }
  // Some that are held in memory, without a limit, tell 0 of 0.
  if ((room.f_bfree == 0 && room.f_blocks != 0) || (room.f_ffree == 0 && room.f_files != 0)) {
    report.add("log-full", Severity::blocks,
               "The file system of the log is full: a run does everything and leaves no record.",
               place, "df " + place.string());
  }
}

void look_at_trust(Report& report) {
  std::vector<fs::path> trusted = {kManifest, "/etc/dkms/framework.conf"};
  for (const std::string& tree : dkms_trees()) {
    trusted.emplace_back(tree + "/valta");
  }
  std::vector<fs::path> seen;
  for (const fs::path& path : trusted) {
    for (fs::path part = path;; part = part.parent_path()) {
      struct stat status {};
      if (std::find(seen.begin(), seen.end(), part) == seen.end() &&
          stat(part.c_str(), &status) == 0 &&
          (status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
        report.add("trust", Severity::note,
                   "Others than root may write here, and thereby decide what root deletes.", part,
                   "ls -ld " + part.string());
      }
      seen.push_back(part);
      if (!part.has_relative_path()) {
        break;
      }
    }
  }
}

void look_at_unseen(const Installation& installation, Report& report) {
  std::vector<std::string> paths(kConfigurationPaths.begin(), kConfigurationPaths.end());
  for (const std::string& version : installation.registrations) {
    paths.push_back(std::string(kSourcePrefix) + last_component(version));
  }
  for (const std::string& path : paths) {
    if (!path_exists(path) && !is_symlink(path)) {
      continue;
    }
    std::string text = path + " goes without a look at its content";
    if (is_directory(path)) {
      text += ": " + some_of(names_in(path));
    }
    report.add("unseen", Severity::note, text + ".", path, "cp -a --parents " + path + " /root/");
  }
}

}  // namespace valta::inspect
