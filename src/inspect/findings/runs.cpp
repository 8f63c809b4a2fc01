#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "inspect/findings/findings.h"
#include "inspect/findings/looks.h"
#include "inspect/host/dkms.h"
#include "inspect/host/modules.h"
#include "inspect/host/processes.h"
#include "inspect/host/program.h"
#include "installer/remove_driver.h"
#include "uninstall/manifest.h"
#include "utils/listing.h"
#include "utils/shell.h"
#include "utils/text.h"
#include "utils/wording.h"

namespace valta::inspect {
namespace {

/// The parts of the installation that another run can remove, in words.
std::vector<std::string> work_left(const Installation& installation, const Report& report) {
  std::vector<std::string> left;
  if (!report.kept.empty()) {
    left.push_back(counted(report.kept.size(), "path") + " of the manifest");
  }
  if (!installation.registrations.empty()) {
    left.push_back(counted(installation.registrations.size(), "version") + " in DKMS");
  }
  const auto configuration = static_cast<std::size_t>(
      std::count_if(kConfigurationPaths.begin(), kConfigurationPaths.end(), lexists));
  if (configuration > 0) {
    left.push_back(counted(configuration, "configuration path"));
  }
  const std::vector<Module> modules = parse_modules(loaded_modules());
  for (const std::string& name : stack_modules()) {
    if (find_module(modules, name) != nullptr) {
      left.push_back("the module " + name);
    }
  }
  return left;
}

}  // namespace

void look_at_active_run(Report& report) {
  for (const std::string& pid : processes_called("valta-driver-uninstaller")) {
    report.add("run-active",
               "The uninstaller is running as process " + pid + ". Wait until it has ended.", pid,
               "pgrep -a valta-driver-un");
  }
}

void look_at_unfinished(const Installation& installation, Report& report) {
  const std::vector<std::string> left = work_left(installation, report);
  if (!left.empty()) {
    report.add(
        "run-again",
        "The run left " + join(left, ", ") + ". Fix the cause, then run the uninstaller again.",
        kUninstallManifestPath,
        shell_command("env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root %",
                      {program_to_run(installation)}));
  }
}

}  // namespace valta::inspect
