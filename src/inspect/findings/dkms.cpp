#include "inspect/host/dkms.h"

#include <algorithm>
#include <string>
#include <vector>

#include "inspect/findings/looks.h"
#include "inspect/host/modules.h"
#include "inspect/report/run_check.h"
#include "uninstall/dkms.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/shell.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

/// The kernel release in the path of a module.
std::string kernel_of(const std::string& path) {
  const std::string release = path.substr(path.find("/modules/") + 9);
  return release.substr(0, release.find('/'));
}

bool has_sources(const std::string& version) { return is_directory(version + "/source"); }

void look_at_broken_version(const std::string& version, Report& report) {
  report.add("dkms-broken",
             "DKMS has valta/" + last_component(version) +
                 " without its sources, so dkms cannot remove it.",
             version, shell_command("rm -r %", {version}));
}

}  // namespace

void look_at_dkms_versions(const Installation& installation, Report& report) {
  const std::string tree = dkms_trees().front();
  for (const std::string& version : installation.registrations) {
    const std::string name = "valta/" + last_component(version);
    if (!has_sources(version)) {
      look_at_broken_version(version, report);
    } else if (!version.starts_with(tree + "/")) {
      report.add("dkms-tree", "DKMS has " + name + ", but a run looks for it in " + tree + ".",
                 version, shell_command("dkms remove % --all", {name}));
    }
  }
}

void look_at_dkms_remains(Report& report) {
  if (in_container(report)) {
    return;  // left to the host
  }
  std::vector<std::string> registered;
  for (const std::string& version : dkms_registrations()) {
    const std::string name = last_component(version);
    registered.push_back(name);
    report.dkms.push_back({name, DkmsState::registered});
    if (!has_sources(version)) {
      look_at_broken_version(version, report);
      continue;
    }
    if (std::any_of(report.findings.begin(), report.findings.end(),
                    [&](const Finding& finding) { return finding.where == version; })) {
      continue;  // reported as dkms-tree already
    }
    const std::string sources = kDkmsSourcePrefix + name;
    add_left("dkms-registered", "The DKMS registration of valta/" + name, version,
             shell_command("dkms remove % --all", {"valta/" + name}) +
                 (is_directory(sources) ? shell_command(" && rm -r %", {sources}) : ""),
             report);
  }
  for (const std::string& name : names_in("/usr/src")) {
    const std::string path = "/usr/src/" + name;
    const std::string version =
        path.starts_with(kDkmsSourcePrefix) ? path.substr(kDkmsSourcePrefix.size()) : "";
    if (version.empty()) {
      continue;
    }
    report.dkms.push_back({version, DkmsState::sources});
    if (std::find(registered.begin(), registered.end(), version) == registered.end()) {
      add_left("dkms-sources", "The directory " + path + " with DKMS sources", path,
               shell_command("rm -r %", {path}), report);
    }
  }
  const std::vector<std::string> names = stack_modules();
  for (const std::string& path : paths_below("/lib/modules/")) {
    const std::string file = last_component(path);
    const std::string name = file.substr(0, file.find('.'));
    if (file.find(".ko") != std::string::npos &&
        std::find(names.begin(), names.end(), name) != names.end()) {
      add_left("module-built", "The built module " + path, path,
               shell_command("rm % && depmod %", {path, kernel_of(path)}), report);
    }
  }
}

}  // namespace valta::inspect
