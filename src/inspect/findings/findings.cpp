#include "inspect/findings/findings.h"

#include <algorithm>

#include "inspect/findings/looks.h"
#include "utils/search_path.h"

namespace valta::inspect {

std::string systemctl_command(const std::string& command) {
  return find_in_path_executable("systemctl") ? command : "";
}

std::string after_run(const std::string& command, const Report& report) {
  return report.command == Command::after ? command : "";
}

void add_left(FindingId id, const std::string& what, const std::string& where,
              const std::string& command, Report& report) {
  const bool before = report.command == Command::before;
  report.add(id, what + (before ? " would be left." : " is left."), where,
             after_run(command, report));
}

void look_at_obstacles(const Installation& installation, Report& report) {
  look_at_active_run(report);
  look_at_odd_log(report);
  look_at_log_space(report);
  look_at_missing_tools(installation, report);
  look_at_manifest(installation, report);
  look_at_units(installation, report);
  look_at_instances(installation, report);
  look_at_dkms_versions(installation, report);
}

void look_at_surroundings(const Installation& installation, Report& report) {
  look_at_mounted_configuration(report);
  look_at_listed_tools(installation, report);
  look_at_outside_entries(installation, report);
  look_at_odd_tools(installation, report);
  look_at_trust(report);
  look_at_initrd(report);
}

void look_at_remains(const Installation& installation, Report& report) {
  look_at_manifest_as_a_whole(installation, report);
  look_at_kept(installation, report);
  look_at_dkms_remains(report);
  look_at_unit_links(installation, report);
  look_at_configuration(report);
}

void look_at_host_after(const Installation& installation, Report& report) {
  look_at_missing_tools(installation, report);
  look_at_known_units(installation, report);
  look_at_instances(installation, report);
  look_at_loaded_modules(report);
  look_at_initrd(report);
}

}  // namespace valta::inspect
