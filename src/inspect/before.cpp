#include "inspect/before.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>

#include "inspect/dry_run/dry_run.h"
#include "inspect/dry_run/limits.h"
#include "inspect/dry_run/namespaces.h"
#include "inspect/findings/findings.h"
#include "inspect/host/dkms.h"
#include "inspect/host/modules.h"
#include "inspect/host/program.h"
#include "inspect/host/run_log.h"
#include "inspect/report/run_check.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/progress.h"
#include "utils/search_path.h"
#include "utils/shell.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

UnitState state_after(ActionKind kind) {
  switch (kind) {
    case ActionKind::disabled:
      return UnitState::disabled;
    case ActionKind::stopped:
      return UnitState::stopped;
    default:
      return UnitState::refused;
  }
}

void report_actions(const DryRun& run, Report& report) {
  report.unloaded.clear();
  for (const Action& action : run.actions) {
    if (action.kind == ActionKind::unloaded) {
      report.unloaded.push_back(action.object);
    } else {
      report.services.push_back({action.object, state_after(action.kind)});
    }
  }
}

/// Checks the run by the files of the overlay.
void check_inside(const DryRun& run,
                  const std::pair<std::int64_t, std::int64_t>& time_of_earlier_log,
                  const Installation& installation, Report& report) {
  const bool has_log = time_of_log() != time_of_earlier_log;
  check_run({run.status, run.console, run.output, has_log ? read_log() : std::nullopt,
             dkms_registrations(), path_exists(installation.root),
             find_in_path_executable("md5sum"), is_directory(kernel_module_directory())},
            report);
  settle_kept(installation, report);
  // If a run stops early, the next run removes the rest.
  if (came_to_the_manifest(report) && !ended_in_the_manifest(report)) {
    look_at_remains(installation, report);
  }
}

/// Marks the removed paths that the manifest lists. Links are resolved in removed paths only.
void mark_listed(const Installation& installation, Report& report) {
  std::set<std::string> listed;
  for (const ManifestEntry& entry : installation.entries) {
    const bool is_unit = target_of(entry.type) == EntryTarget::unit;
    const fs::path path = is_unit ? unit_file_path(entry.path) : entry.path;
    std::error_code ignored;
    listed.insert(fs::weakly_canonical(path.parent_path(), ignored) / path.filename());
  }
  for (Removal& removal : report.removed) {
    removal.is_listed = listed.contains(removal.path);
  }
}

/// Predicts the run.
void predict(const std::string& program, int timeout, const Installation& installation,
             const std::vector<std::string>& detached, Report& report) {
  const auto time_of_earlier_log = time_of_log();
  const std::string full_log = full_log_directory();
  begin_step("Making an overlay of the host");
  const Overlay overlay;
  begin_step("Running the uninstaller in the overlay");
  const DryRun run = dry_run(overlay, program, timeout);
  begin_step("Reading the changes");
  Changes changes = overlay.changes();

  overlay.look_inside();
  check_inside(run, time_of_earlier_log, installation, report);
  overlay.look_outside();
  report.removed = std::move(changes.removed);
  mark_listed(installation, report);
  report.written = std::move(changes.written);
  report_actions(run, report);
  if (!run.status) {
    look_at_hanging(run.hung_on, timeout, report);
  } else if (report.outcome == Outcome::clean && !report.removed.empty()) {
    report.outcome = Outcome::done;  // configuration, which the log does not mention
  } else if (report.outcome == Outcome::nothing_done && run.status == 1) {
    look_at_refused_log(report);
  }
  std::vector<std::string> unlike_host = overlay.unlike_host();
  unlike_host.insert(unlike_host.end(), detached.begin(), detached.end());
  look_at_uncertainty(unlike_host, installation, report);
  look_at_module_users(run.modules, installation, report);
  look_at_failures(report);
  look_at_unseen(installation, report);
  if (!full_log.empty() && !report.log.empty()) {  // in the overlay, whose memory has room for it
    report.outcome = Outcome::unfinished;
    report.reason = "the run would do its work, but the file system of its log is full";
    report.log.clear();
  }
}

/// The command that saves everything that a run removes. Comes before the overlay: with another
/// root directory, this program has another path.
std::string saving_command() {
  const fs::path inspector = fs::path(program_beside()).replace_filename("valta-driver-inspect");
  return shell_command("% before --save /root/valta-saved.tar", {inspector.native()});
}

/// Offers `command` once, where a path is deleted even if it was changed.
void offer_saving(const std::string& command, Report& report) {
  const auto first =
      std::find_if(report.findings.begin(), report.findings.end(),
                   [](const Finding& finding) { return finding.id == FindingId("unseen"); });
  if (first != report.findings.end()) {
    first->next = command;
  }
}

/// Prepares this process for a dry run. Returns false if that is not possible, with the reason in
/// the report.
bool prepare_view(std::vector<std::string>& detached, Report& report) {
  if (geteuid() != 0) {
    report.reason = "a dry run needs root";
    return false;
  }
  raise_limits();
  try {
    detached = leave_namespaces();
    return true;
  } catch (const NotPossible& problem) {
    report.reason = problem.what();
    return false;
  }
}

}  // namespace

Report before(const std::string& program, int timeout, Saving saving) {
  Report report;
  report.command = Command::before;
  begin_step("Looking at the host");
  const std::string command = saving == Saving::yes ? "" : saving_command();
  // Comes first: in namespaces of its own, this process changes no access times and waits for no
  // file system.
  std::vector<std::string> detached;
  const bool prepared = prepare_view(detached, report);
  const Installation installation = read_installation();
  look_at_obstacles(installation, report);
  look_at_surroundings(installation, report);
  try {
    if (prepared) {
      predict(program, timeout, installation, detached, report);
      offer_saving(command, report);
      return report;
    }
  } catch (const std::exception& problem) {
    report.outcome = Outcome::unknown;
    report.reason = problem.what();
  }
  look_at_module_users(loaded_modules(), installation, report);
  return report;
}

}  // namespace valta::inspect
