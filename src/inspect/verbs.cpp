#include "inspect/verbs.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <map>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "inspect/dry_run/dry_run.h"
#include "inspect/dry_run/overlay.h"
#include "inspect/findings/conditions.h"
#include "inspect/findings/remains.h"
#include "inspect/host/installation.h"
#include "inspect/host/modules.h"
#include "inspect/host/processes.h"
#include "inspect/report/run_check.h"
#include "installer/remove_driver.h"
#include "log/log.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

std::optional<std::string> read_log() {
  std::string text;
  return read_file(kLogPath, text) ? std::optional(text) : std::nullopt;
}

/// When the log was last written to, or replaced.
std::pair<std::int64_t, std::int64_t> time_of_log() {
  struct stat status {};
  stat(kLogPath, &status);
  return {status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

void take_deeds(const Rehearsal& rehearsal, Report& report) {
  report.unloaded.clear();
  for (const std::string& deed : rehearsal.deeds) {
    const auto blank = deed.find(' ');
    const std::string done = deed.substr(0, blank);
    const std::string object = deed.substr(blank + 1);
    if (done == "unloaded") {
      report.unloaded.push_back(object);
    } else {
      report.services.push_back({object, done});
    }
  }
}

/// A command that a rehearsal hung on most likely waits for the last of its arguments.
void explain_hanging(const Rehearsal& rehearsal, int timeout, Report& report) {
  report.outcome = Outcome::unfinished;
  report.reason = "it hung for " + counted(static_cast<std::size_t>(timeout), "second");
  for (const std::string& command : rehearsal.hung_on) {
    const std::string last = command.substr(command.rfind(' ') + 1);
    report.add("hangs", Severity::blocks, "A run would wait for: " + command, command,
               last.starts_with('/') ? "ls -l " + last : "");
  }
}

/// Names what a run would do on file systems that the image has read-only, or lacks.
void admit_uncertainty(const Image& image, const Installation& installation, Report& report) {
  std::vector<std::string> paths(kConfigurationPaths.begin(), kConfigurationPaths.end());
  paths.insert(paths.end(), {kLogPath, "/lib/modules/", "/etc/systemd/system/"});
  for (const ManifestEntry& entry : installation.entries) {
    paths.push_back(entry.path);
  }
  for (const std::string& version : installation.registrations) {
    paths.insert(paths.end(), {version, std::string(kSourcePrefix) + last_component(version)});
  }
  for (const std::string& point : image.read_only()) {
    const auto below = std::count_if(paths.begin(), paths.end(), [&](const std::string& path) {
      std::error_code ignored;
      const fs::path directory = fs::weakly_canonical(fs::path(path).parent_path(), ignored);
      return (directory.string() + "/").starts_with(point + "/");
    });
    if (below > 0) {
      report.add("uncertain", Severity::blocks,
                 "The file system of " + counted(static_cast<std::size_t>(below), "path") +
                     " cannot be rehearsed on: what is said of them is uncertain.",
                 point, "findmnt " + point);
    }
  }
}

/// What the run would do, as the image shows it.
void foretell(const std::string& program, int timeout, const Installation& installation,
              Report& report) {
  const auto earlier = time_of_log();
  const Image image;
  const Rehearsal rehearsal = rehearse(image, program, timeout);
  Image::Changes changes = image.changes();
  look_at_holders(rehearsal.modules, installation, report);
  admit_uncertainty(image, installation, report);

  image.look_inside();
  // A run that wrote no log is not to be judged by that of an earlier one.
  judge({rehearsal.status, rehearsal.console, rehearsal.output,
         time_of_log() == earlier ? std::nullopt : read_log(), dkms_registrations(),
         path_exists(installation.root)},
        report);
  report.removed = std::move(changes.removed);
  report.written = std::move(changes.written);
  take_deeds(rehearsal, report);
  if (!rehearsal.status) {
    explain_hanging(rehearsal, timeout, report);
  } else if (report.outcome == Outcome::clean && !report.removed.empty()) {
    report.outcome = Outcome::done;  // configuration, which the log does not mention
  } else if (report.outcome == Outcome::nothing_done && rehearsal.status == 1) {
    report.add("log-refused", Severity::blocks, "The log cannot be opened for writing.", kLogPath,
               std::string("ls -ld ") + kLogPath);
  }
  if (came_to_the_manifest(report)) {
    look_at_remains(installation, report);
  }
}

/// Says what is in the way; nothing when nothing is.
std::string try_to_leave_namespaces() {
  if (geteuid() != 0) {
    return "a rehearsal takes root";
  }
  try {
    leave_namespaces();
    return "";
  } catch (const NotPossible& problem) {
    return problem.what();
  }
}

/// The log does not tell what it was that a run removed, but the manifest does.
void name_kinds(const Installation& installation, Report& report) {
  const std::map<std::string_view, const char*> kinds = {{"FILE", "file"},
                                                         {"RFILE", "file"},
                                                         {"SYMLINK", "link"},
                                                         {"RLINK", "link"},
                                                         {"DIR", "directory"}};
  std::map<std::string_view, const char*> kind_of_path;
  for (const ManifestEntry& entry : installation.entries) {
    if (const auto kind = kinds.find(entry.type); kind != kinds.end()) {
      kind_of_path[entry.path] = kind->second;
    }
  }
  for (Removal& removal : report.removed) {
    const auto kind = kind_of_path.find(removal.path);
    removal.kind = kind == kind_of_path.end() ? removal.kind : kind->second;
  }
}

}  // namespace

Report before(const std::string& program, int timeout) {
  Report report;
  report.verb = "before";
  // First of all: from then on looks leave access times alone.
  const std::string obstacle = try_to_leave_namespaces();
  const Installation installation = read_installation();
  look_at_manifest(installation, report);
  look_at_units(installation, report);
  look_at_instances(installation, report);
  look_at_tools(installation, report);
  look_at_log_space(report);
  look_at_trust(report);
  look_at_unseen(installation, report);
  try {
    if (!obstacle.empty()) {
      throw NotPossible(obstacle);
    }
    foretell(program, timeout, installation, report);
  } catch (const std::exception& problem) {
    report.outcome = Outcome::unknown;
    report.reason = problem.what();
    look_at_holders(loaded_modules(), installation, report);
  }
  return report;
}

Report after(std::optional<int> status, const std::string& console) {
  Report report;
  report.verb = "after";
  const Installation installation = read_installation();
  judge({status, console, "", read_log(), dkms_registrations(), path_exists(installation.root)},
        report);
  for (const char* const file : {kLogPath, kUninstallManifestPath}) {
    if (access(file, R_OK) != 0 && errno == EACCES) {
      report.outcome = Outcome::unknown;
      report.reason = std::string("only root can read ") + file;
    }
  }
  name_kinds(installation, report);
  if (!came_to_the_manifest(report)) {
    tell_to_run_again(installation, report);
    look_at_holders(loaded_modules(), installation, report);
    return report;
  }
  if (report.outcome == Outcome::failed) {
    look_at_manifest(installation, report);
  }
  look_at_remains(installation, report);
  look_at_known_units(installation, report);
  look_at_instances(installation, report);
  look_at_loaded_modules(report);
  return report;
}

}  // namespace valta::inspect
