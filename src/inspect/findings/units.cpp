#include "inspect/host/units.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "inspect/findings/looks.h"
#include "uninstall/systemctl.h"
#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/paths.h"
#include "utils/regular_file.h"
#include "utils/search_path.h"
#include "utils/shell.h"
#include "utils/spawn.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

/// The file that systemd generated the unit file `file` from; empty when it does not say.
std::string source_of(const std::string& file) {
  std::string text;
  read_regular_file(file, text);
  for (const std::string& line : split(text, '\n')) {
    if (line.starts_with("SourcePath=")) {
      return line.substr(line.find('=') + 1);
    }
  }
  return "";
}

void look_at_unit_file(const std::string& unit, const std::string& file, Report& report) {
  std::error_code none;
  const std::string target = fs::read_symlink(file, none);
  const bool is_runtime = is_below(file, "/run");
  if (target == "/dev/null") {
    report.add(
        "unit-masked", unit + " is masked, so systemd still knows it after a run.", file,
        shell_command(is_runtime ? "systemctl unmask --runtime %" : "systemctl unmask %", {unit}));
  } else if (is_in_unit_directory(file)) {
    return;
  } else if (!target.empty()) {
    if (is_runtime) {  // a run disables the unit, which deletes such links in /etc
      report.add("unit-linked",
                 unit + " is linked from " + file + ", so systemd still knows it after a run.",
                 file, shell_command("rm % && systemctl daemon-reload", {file}));
    }
  } else if (file.starts_with("/run/systemd/generator")) {
    const std::string source = source_of(file);
    report.add(
        "unit-generated",
        "systemd generates " + unit + (source.empty() ? "" : " from " + source) +
            ", so it still knows " + unit + " after a run. Remove " +
            (source.empty() ? "its source" : source) + ".",
        file, source.empty() ? shell_command("cat %", {file}) : shell_command("ls -l %", {source}));
  } else {
    report.add("unit-copied",
               unit + " has a file in another directory, so systemd still knows it after a run.",
               file, copy_and_delete(file) + " && systemctl daemon-reload");
  }
}

/// The instances of `unit`'s template that are enabled or active.
std::vector<std::string> instances_of(const std::string& unit) {
  const std::string prefix = template_prefix(unit) + "@";
  std::vector<std::string> names = active_units();
  for (const std::string& link : paths_below("/etc/systemd/system")) {
    if (path_exists(link)) {
      names.push_back(last_component(link));
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

UnitState state_of(int status_of_systemctl) {
  switch (status_of_systemctl) {
    case systemctl::kActive:
      return UnitState::active;
    case systemctl::kInactive:
      return UnitState::known;
    case systemctl::kUnknown:
      return UnitState::unknown;
    default:
      return UnitState::untold;
  }
}

}  // namespace

void look_at_unit(const std::string& unit, Report& report) {
  if (is_bare_template(unit)) {
    // With an instance instead of the template, the line deletes the template's file.
    report.add(
        "unit-template",
        unit + " is a template: its instances keep running, and systemctl has no status for it.",
        unit,
        shell_command("sed -i % % && systemctl stop %",
                      {"s/^SERVICE " + unit + " /SERVICE " + template_prefix(unit) + "@0 /",
                       kUninstallManifestPath, template_prefix(unit) + "@*"}));
    return;
  }
  if (refuses_to_stop(unit)) {
    report.add("unit-refuses",
               unit + " refuses to be stopped by hand, so systemd still knows it after a run.",
               unit, shell_command("systemctl kill %", {unit}));
  }
  for (const std::string& file : unit_files(unit)) {
    look_at_unit_file(unit, file, report);
  }
}

void look_at_units(const Installation& installation, Report& report) {
  for (const std::string& unit : installation.units) {
    look_at_unit(unit, report);
  }
}

void look_at_instances(const Installation& installation, Report& report) {
  std::set<std::string> known(installation.units.begin(), installation.units.end());
  for (const std::string& unit : installation.units) {
    if (!is_of_template(unit)) {
      continue;
    }
    for (const std::string& instance : instances_of(unit)) {
      if (known.insert(instance).second) {
        report.add(
            "unit-instance",
            instance +
                " has no line in the manifest: a run deletes its unit file, but does not stop it.",
            instance, systemctl_command(shell_command("systemctl disable --now %", {instance})));
      }
    }
  }
}

void look_at_unit_links(const Installation& installation, Report& report) {
  for (const std::string& path : paths_below("/etc/systemd/system")) {
    const std::string name = last_component(path);
    const bool is_ours =
        std::any_of(installation.units.begin(), installation.units.end(), [&](const auto& unit) {
          return name == full_unit_name(unit) ||
                 (is_of_template(unit) && name.starts_with(template_prefix(unit) + "@"));
        });
    if (is_ours && is_symlink(path) && unit_files(name).empty()) {
      const std::string stop = systemctl_command(shell_command("systemctl stop %; ", {name}));
      add_left("unit-link", "A link to the removed unit " + name, path,
               stop + shell_command("rm %", {path}), report);
    }
  }
}

void look_at_known_units(const Installation& installation, Report& report) {
  if (!find_in_path_executable("systemctl")) {
    return;
  }
  for (const std::string& unit : installation.units) {
    const UnitState state =
        state_of(exit_status_of({"systemctl", "status", unit}, Printing::silent));
    report.services.push_back({unit, state});
    if (state == UnitState::active) {
      report.add("unit-active", unit + " is active.", unit,
                 shell_command("systemctl stop %", {unit}));
    } else if (state == UnitState::known) {
      const auto findings = report.findings.size();
      look_at_unit(unit, report);
      const bool is_kept =
          std::any_of(report.kept.begin(), report.kept.end(),
                      [&](const Kept& kept) { return kept.path == unit_file_path(unit); });
      if (report.findings.size() == findings && !is_kept) {
        report.add("unit-known", "systemd still knows " + unit + ".", unit,
                   shell_command("systemctl show -p FragmentPath,SourcePath %", {unit}));
      }
    }
  }
}

}  // namespace valta::inspect
