#include <algorithm>
#include <filesystem>
#include <string>
#include <sys/mount.h>
#include <vector>

#include "inspect/findings/findings.h"
#include "inspect/findings/looks.h"
#include "inspect/host/attributes.h"
#include "inspect/host/dkms.h"
#include "inspect/host/mounts.h"
#include "inspect/host/run_log.h"
#include "log/log.h"
#include "uninstall/dkms.h"
#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/paths.h"
#include "utils/shell.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

/// `path` with links resolved, except in its last component.
std::string place_of(const std::string& path) {
  std::error_code ignored;
  const fs::path whole = path;
  return fs::weakly_canonical(whole.parent_path(), ignored) / whole.filename();
}

/// The first immutable path that prevents the deletion of `path`: its directory, `path`, or a path
/// below it; empty for none.
std::string immutable_at(const std::string& path) {
  std::vector<std::string> paths = {fs::path(path).parent_path(), path};
  if (is_directory(path) && !is_symlink(path)) {
    const std::vector<std::string> below = paths_below(path);
    paths.insert(paths.end(), below.begin(), below.end());
  }
  const auto found = std::find_if(paths.begin(), paths.end(), is_immutable);
  return found == paths.end() ? "" : *found;
}

/// The words of a tool, without the level of a message in front.
std::string said(const std::string& words) {
  const std::string text = words.starts_with("Debug: ") ? words.substr(7) : words;
  return text.empty() ? "" : ": " + text;
}

void explain_unit(const std::string& unit, Report& report) {
  const auto findings = report.findings.size();
  explain_removal(unit_file_path(unit), report);
  look_at_unit(unit, report);
  if (report.findings.size() == findings) {
    report.add("run-fails", "systemd still knows " + unit + " after its removal.", unit,
               systemctl_command(shell_command("systemctl status %", {unit})));
  }
}

void explain_dkms(const Failure& failure, Report& report) {
  const std::vector<std::string> versions = dkms_registrations();
  const bool is_there = std::any_of(versions.begin(), versions.end(), [&](const auto& version) {
    return last_component(version) == failure.object && is_directory(version + "/source");
  });
  if (is_there) {  // versions without sources have a finding already
    report.add("dkms-fails", "dkms fails to remove valta/" + failure.object + said(failure.words),
               "valta/" + failure.object,
               shell_command("dkms status %", {"valta/" + failure.object}));
  }
}

void explain(const Failure& failure, Report& report) {
  switch (failure.kind) {
    case FailureKind::removal:
    case FailureKind::configuration:
      explain_removal(failure.object, report);
      break;
    case FailureKind::unit:
      explain_unit(failure.object, report);
      break;
    case FailureKind::dkms:
      explain_dkms(failure, report);
      break;
    case FailureKind::dkms_sources:
      explain_removal(kDkmsSourcePrefix + failure.object, report);
      break;
    case FailureKind::module:
      report.add("module-stuck", "rmmod fails to unload " + failure.object + said(failure.words),
                 failure.object, shell_command("grep -w % /proc/modules", {failure.object}));
      break;
    case FailureKind::depmod:
      if (!is_directory(kernel_module_directory())) {
        report.add("modules-missing",
                   "There are no modules of the running kernel, so depmod has nothing to refresh.",
                   kernel_module_directory(), "ls /lib/modules");
      } else if (report.command == Command::before || !dependencies_are_newer_than_log()) {
        report.add("depmod-fails", "depmod fails" + said(failure.words), "depmod", "depmod");
      }
      break;
    case FailureKind::directory:
    case FailureKind::entry_type:
    case FailureKind::manifest:
      break;  // reported with the lines of the manifest
  }
}

}  // namespace

void explain_removal(const std::string& path, Report& report) {
  if (!lexists(path)) {
    return;
  }
  const std::vector<Mount> mounts = read_mounts();
  const std::string place = place_of(path);
  for (const Mount& mounted : mounts) {
    if (is_below(mounted.point, place)) {
      report.add("cannot-remove",
                 path + " cannot be changed or deleted because a file system is mounted on " +
                     mounted.point + ".",
                 path, shell_command("umount %", {mounted.point}));
      return;
    }
  }
  const Mount* const mounted = MountTree(mounts).showing(place);
  if (mounted != nullptr && (mounted->flags & MS_RDONLY) != 0) {
    report.add("read-only",
               path + " cannot be changed or deleted because its file system is read-only.", path,
               shell_command("findmnt -T %", {path}));
  } else if (const std::string immutable = immutable_at(place); !immutable.empty()) {
    report.add("cannot-remove",
               path + " cannot be changed or deleted because " + immutable + " is immutable.", path,
               shell_command("chattr -ia %", {immutable}));
  } else if (is_directory(place) && !is_symlink(place) && !names_in(place).empty()) {
    report.add("removal-fails", path + " is a directory that cannot be deleted.", path,
               shell_command("ls -lA %", {path}));
  } else {
    report.add("removal-fails", path + " cannot be deleted.", path,
               shell_command("ls -ld %", {path}));
  }
}

void look_at_failures(Report& report) {
  for (const Failure& failure : report.failures) {
    explain(failure, report);
  }
  const bool is_explained =
      std::any_of(report.findings.begin(), report.findings.end(),
                  [](const Finding& finding) { return finding.severity == Severity::blocks; });
  if (report.command == Command::before && report.outcome == Outcome::failed && !is_explained) {
    report.add("run-fails", "A run fails: " + report.reason + ".", kLogPath,
               "valta-driver-inspect before --verbose");
  }
}

}  // namespace valta::inspect
