#include "inspect/after.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <unistd.h>

#include "inspect/findings/findings.h"
#include "inspect/host/dkms.h"
#include "inspect/host/modules.h"
#include "inspect/host/program.h"
#include "inspect/host/run_log.h"
#include "inspect/report/run_check.h"
#include "log/log.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/progress.h"
#include "utils/search_path.h"

namespace valta::inspect {
namespace {

FileKind kind_of(EntryTarget target) {
  switch (target) {
    case EntryTarget::file:
      return FileKind::file;
    case EntryTarget::link:
      return FileKind::link;
    case EntryTarget::directory:
      return FileKind::directory;
    default:
      return FileKind::other;
  }
}

/// The log does not have the kinds of the removed paths, but the manifest does.
void name_kinds(const Installation& installation, Report& report) {
  std::map<std::string, FileKind> kinds;
  for (const ManifestEntry& entry : installation.entries) {
    if (names_path(entry.type)) {
      kinds[entry.path] = kind_of(*target_of(entry.type));
    } else if (target_of(entry.type) == EntryTarget::unit) {
      kinds[unit_file_path(entry.path)] = FileKind::file;
    }
  }
  for (Removal& removal : report.removed) {
    const auto kind = kinds.find(removal.path);
    removal.kind = kind == kinds.end() ? removal.kind : kind->second;
  }
}

/// Whether another run would do more than the one of `report`, once the cause that the report names
/// is fixed.
bool has_more_to_do(const Installation& installation, const Report& report) {
  const bool was_kept_for_program =
      std::any_of(report.kept.begin(), report.kept.end(),
                  [](const Kept& kept) { return kept.reason == KeptReason::program; });
  return has_finding(report, "manifest-format") || has_finding(report, "manifest-digests") ||
         has_finding(report, "tool-missing") ||
         (was_kept_for_program && program_to_run(installation) != installed_program(installation));
}

/// Whether nothing is left to do, whatever the outcome. A run never removes a directory that also
/// holds other files.
bool is_all_done(const Report& report) {
  return std::all_of(report.findings.begin(), report.findings.end(), [](const Finding& finding) {
    return finding.severity == Severity::note || finding.id == FindingId("directory-stays");
  });
}

/// Sets the outcome to done if everything that the run left was removed since.
void reconcile(Report& report) {
  const bool left_something = report.outcome != Outcome::done && report.outcome != Outcome::clean &&
                              report.outcome != Outcome::unknown &&
                              report.outcome != Outcome::nothing_done;
  if (left_something && is_all_done(report)) {
    report.outcome = Outcome::done;
    report.reason = "what the last run left has been removed since";
  }
}

}  // namespace

Report after(std::optional<int> status, const std::string& console) {
  Report report;
  report.command = Command::after;
  begin_step("Looking at the host");
  const Installation installation = read_installation();
  check_run({status, console, "", read_log(), dkms_registrations(), path_exists(installation.root),
             find_in_path_executable("md5sum"), is_directory(kernel_module_directory())},
            report);
  for (const char* const file : {kLogPath, kUninstallManifestPath}) {
    if (access(file, R_OK) != 0 && errno == EACCES) {
      report.outcome = Outcome::unknown;
      report.reason = std::string("only root can read ") + file;
    }
  }
  name_kinds(installation, report);
  settle_kept(installation, report);
  look_at_failures(report);
  if (came_to_the_manifest(report) && !ended_in_the_manifest(report)) {
    look_at_remains(installation, report);
    look_at_host_after(installation, report);
    if (has_more_to_do(installation, report)) {
      look_at_unfinished(installation, report);
    }
  } else {
    look_at_obstacles(installation, report);
    look_at_module_users(loaded_modules(), installation, report);
    look_at_unfinished(installation, report);
  }
  reconcile(report);
  return report;
}

}  // namespace valta::inspect
