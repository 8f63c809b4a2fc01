#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "inspect/findings/findings.h"
#include "inspect/findings/looks.h"
#include "inspect/host/mounts.h"
#include "installer/remove_driver.h"
#include "uninstall/dkms.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/paths.h"
#include "utils/shell.h"
#include "utils/text.h"
#include "utils/wording.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

bool is_removed(const std::string& path, const Report& report) {
  return std::any_of(report.removed.begin(), report.removed.end(),
                     [&](const Removal& removal) { return removal.path == path; });
}

void look_at_unseen_path(const std::string& path, Report& report) {
  if (is_symlink(path)) {
    std::error_code ignored;
    report.add("unseen",
               path + " is a link to " + fs::read_symlink(path, ignored).string() +
                   ": only the link is deleted.",
               path);
    return;
  }
  const std::vector<std::string> inside = names_in(path);
  report.add("unseen",
             path + " is deleted even if it was changed" +
                 (inside.empty() ? "" : ", with all that is in it: " + some_of(inside)) + ".",
             path);
}

}  // namespace

void look_at_unseen(const Installation& installation, Report& report) {
  std::vector<std::string> paths(kConfigurationPaths.begin(), kConfigurationPaths.end());
  for (const std::string& version : installation.registrations) {
    paths.push_back(kDkmsSourcePrefix + last_component(version));
  }
  for (const std::string& path : paths) {
    if (is_removed(path, report)) {
      look_at_unseen_path(path, report);
    }
  }
}

void look_at_mounted_configuration(Report& report) {
  std::error_code ignored;
  for (const char* const path : kConfigurationPaths) {
    // A run deletes a link, not its target.
    const std::string place = is_symlink(path) ? "" : fs::canonical(path, ignored).string();
    for (const Mount& mounted : read_mounts()) {
      if (!place.empty() && is_below(mounted.point, place)) {
        report.add("configuration-mounted",
                   "A file system is mounted on " + mounted.point +
                       ": a run deletes what is on it together with " + path + ".",
                   mounted.point, shell_command("umount %", {mounted.point}));
      }
    }
  }
}

void look_at_configuration(Report& report) {
  for (const char* const path : kConfigurationPaths) {
    if (lexists(path)) {
      add_left("configuration-left", path, path,
               shell_command(is_symlink(path) ? "rm %" : "rm -r %", {path}), report);
    }
  }
}

}  // namespace valta::inspect
