#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include "inspect/findings/findings.h"
#include "inspect/findings/looks.h"
#include "inspect/host/mounts.h"
#include "inspect/host/run_log.h"
#include "inspect/host/unresponsive.h"
#include "installer/remove_driver.h"
#include "log/log.h"
#include "uninstall/dkms.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/paths.h"
#include "utils/progress.h"
#include "utils/shell.h"
#include "utils/text.h"
#include "utils/wording.h"

namespace valta::inspect {
namespace fs = std::filesystem;

void look_at_hanging(const std::vector<std::string>& commands, int timeout, Report& report) {
  report.outcome = Outcome::unfinished;
  report.reason = "it did not end within " + counted(static_cast<std::size_t>(timeout), "second") +
                  "; a slow command may need a longer --timeout";
  for (const std::string& command : commands) {
    // It probably waits for its last argument.
    const std::string last = command.substr(command.rfind(' ') + 1);
    report.add("hangs", "At the time limit, the dry run was waiting for: " + command, command,
               last.starts_with('/') ? shell_command("ls -l %", {last}) : "");
  }
}

void look_at_silence(int seconds, Report& report) {
  report.outcome = Outcome::unknown;
  report.reason = "the host did not answer within " +
                  counted(static_cast<std::size_t>(seconds), "second") +
                  ", at this step: " + current_step();
  std::vector<Mount> mounts = read_mounts();
  std::erase_if(mounts, [](const Mount& mount) { return !holds_files(mount); });
  for (const std::string& point : unresponsive_points(mounts)) {
    report.add("mount-silent", "The file system at " + point + " does not answer.", point,
               "findmnt " + point);
  }
}

void look_at_odd_log(Report& report) {
  std::error_code ignored;
  if (is_symlink(kLogPath)) {
    report.add("log-odd",
               std::string("The log is a link to ") + fs::read_symlink(kLogPath, ignored).string() +
                   ": a run overwrites that file.",
               kLogPath, shell_command("rm %", {kLogPath}));
  } else if (is_directory(kLogPath) ||
             (access(kLogPath, W_OK) != 0 && errno != ENOENT && geteuid() == 0)) {
    look_at_refused_log(report);
  }
}

void look_at_refused_log(Report& report) {
  if (is_symlink(kLogPath)) {
    return;
  }
  if (lexists(kLogPath) && !is_directory(kLogPath)) {
    explain_removal(kLogPath, report);
    return;
  }
  report.add("log-refused", "The log cannot be opened for writing.", kLogPath,
             shell_command("ls -ld %", {kLogPath}));
}

void look_at_uncertainty(const std::vector<std::string>& unlike_host,
                         const Installation& installation, Report& report) {
  std::vector<std::string> paths(kConfigurationPaths.begin(), kConfigurationPaths.end());
  paths.insert(paths.end(), {kLogPath, "/lib/modules/", "/etc/systemd/system/"});
  for (const ManifestEntry& entry : installation.entries) {
    paths.push_back(entry.path);
  }
  for (const std::string& version : installation.registrations) {
    paths.insert(paths.end(), {version, kDkmsSourcePrefix + last_component(version)});
  }
  for (const std::string& point : unlike_host) {
    const auto there = std::count_if(paths.begin(), paths.end(), [&](const std::string& path) {
      std::error_code ignored;
      const fs::path directory = fs::weakly_canonical(fs::path(path).parent_path(), ignored);
      return is_below(directory.string(), point);
    });
    if (there > 0) {
      report.add("uncertain",
                 "The dry run did not see " + counted(static_cast<std::size_t>(there), "path") +
                     " at " + point + " as on the host, so their prediction is uncertain.",
                 point, shell_command("findmnt -T %", {point}));
    }
  }
}

void look_at_log_space(Report& report) {
  if (const std::string place = full_log_directory(); !place.empty()) {
    report.add("log-full",
               "The file system of the log is full: a run does its work, but its log is lost.",
               place, shell_command("df %", {place}));
  }
}

}  // namespace valta::inspect
