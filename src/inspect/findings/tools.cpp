#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <string_view>

#include "inspect/findings/looks.h"
#include "uninstall/manifest.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/search_path.h"
#include "utils/shell.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

struct Tool {
  const char* name;
  const char* package;
  Severity severity;
  const char* without;
};

constexpr std::array<Tool, 8> kTools = {{
    {"rmmod", "kmod", Severity::blocks, "a run does nothing at all"},
    {"sh", "dash or bash", Severity::blocks, "no command of a run can be started"},
    {"md5sum", "coreutils", Severity::blocks, "no file can be compared, so all of them are kept"},
    {"rm", "coreutils", Severity::blocks, "the configuration and the DKMS sources are left"},
    {"depmod", "kmod", Severity::blocks, "the module dependency data is not refreshed"},
    {"systemctl", "systemd", Severity::blocks, "the first SERVICE entry ends a run"},
    {"systemd-escape", "systemd", Severity::note, "the slices of templates are not stopped"},
    {"dkms", "dkms", Severity::keeps, "the versions of the module are left in DKMS"},
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

}  // namespace

void look_at_missing_tools(const Installation& installation, Report& report) {
  for (const Tool& tool : kTools) {
    if (is_needed(tool, installation) && !find_in_path_executable(tool.name)) {
      report.add("tool-missing", tool.severity,
                 std::string(tool.name) + " is not in PATH: " + tool.without +
                     ". Install the package " + tool.package + ".",
                 tool.name, shell_command("command -v %", {tool.name}));
    }
  }
  if (!installation.units.empty() && !is_directory("/run/systemd/system")) {
    const std::string directory = fs::path(unit_file_path("any")).parent_path();
    // With FILE entries, a run still deletes unchanged unit files.
    report.add("systemd-missing",
               "systemd is not running, so the first SERVICE entry ends a run. Change the SERVICE "
               "entries to FILE entries of their unit files.",
               kUninstallManifestPath,
               shell_command("sed -i.bak -E % %",
                             {"s,^SERVICE ([^ @]+@?)[^ ]* ,FILE " + directory + "/\\1.service ,",
                              kUninstallManifestPath}));
  }
}

void look_at_odd_tools(const Installation& installation, Report& report) {
  for (const Tool& tool : kTools) {
    const std::string place = which(tool.name);
    if (is_needed(tool, installation) && !place.empty() &&
        !is_system_directory(fs::path(place).parent_path())) {
      report.add("tool-odd",
                 std::string(tool.name) + " in PATH is not in a directory of the system.", place,
                 shell_command("ls -l %", {place}));
    }
  }
}

void look_at_listed_tools(const Installation& installation, Report& report) {
  std::error_code ignored;
  for (const ManifestEntry& entry : installation.entries) {
    if (!names_path(entry.type) || !entry.path.starts_with('/') || is_directory(entry.path)) {
      continue;
    }
    for (const Tool& tool : kTools) {
      const std::string place = which(tool.name);
      if (!place.empty() && fs::equivalent(place, entry.path, ignored)) {
        report.add(
            "entry-tool",
            "The manifest names " + entry.path + ", which the run itself needs as " + tool.name +
                ".",
            entry.path,
            shell_command("sed -i.bak-tools % %",
                          {"\\,^[A-Z]* " + entry.path + R"(\( \|$\),d)", kUninstallManifestPath}));
      }
    }
  }
}

}  // namespace valta::inspect
