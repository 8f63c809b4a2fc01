#include "inspect/report/run_check.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "inspect/report/failures.h"
#include "inspect/report/log_lines.h"
#include "inspect/report/run_messages.h"
#include "log/log.h"
#include "uninstall/manifest.h"
#include "uninstall/result_code.h"
#include "utils/text.h"

namespace valta::inspect {
using namespace messages;

namespace {

/// The exit statuses of a program that did nothing, or of a shell that could not start it.
const std::map<int, const char*> kNeverStarted = {
    {1, "its log could not be opened, or the program could not be loaded"},
    {7, "it lost the rights of root"},
    {126, "the program could not be executed"},
    {127, "the program was not found"},
    {255, "it was not run as root"},
};

std::size_t count(std::string_view text, std::string_view part) {
  std::size_t found = 0;
  for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

/// The texts between `before` and `after` in the lines that have both, each once.
std::vector<std::string> all_between(const std::vector<std::string>& lines, std::string_view before,
                                     std::string_view after) {
  std::vector<std::string> found;
  std::set<std::string> seen;
  for (const std::string& line : lines) {
    if (auto text = text_between(line, before, after); text && seen.insert(*text).second) {
      found.push_back(*std::move(text));
    }
  }
  return found;
}

void take_paths(const std::vector<std::string>& lines, Report& report) {
  for (auto& path : all_between(lines, kUninstall, kRemoved)) {
    report.removed.push_back({std::move(path), FileKind::other, true});
  }
  for (auto& module : all_between(lines, kUnloaded, ".")) {
    report.unloaded.push_back(std::move(module));
  }
  const auto keep = [&](std::string_view before, std::string_view after, KeptReason reason) {
    for (auto& path : all_between(lines, before, after)) {
      report.kept.push_back({std::move(path), reason});
    }
  };
  keep(kDigestOf, kChanged, KeptReason::changed);
  keep("", kUnitChanged, KeptReason::changed);
  keep(kToolkitKeeps, ".", KeptReason::toolkit);
  keep(kProgramKeeps, ".", KeptReason::program);
  keep(kDigestOf, kNoDigest, KeptReason::not_compared);
  keep(kUninstall, kNotEmpty, KeptReason::not_empty);
}

/// The message of the first line that `fits`, without its level; empty for none.
template <typename Fits>
std::string message_of(const std::vector<std::string>& lines, const Fits& fits) {
  const auto found = std::find_if(lines.begin(), lines.end(), fits);
  if (found == lines.end()) {
    return "";
  }
  for (const std::string_view level : {kError, kWarning}) {
    if (found->starts_with(level)) {
      return found->substr(found->find_first_not_of(' ', level.size()));
    }
  }
  return *found;
}

/// The step at which the run failed, or its first error.
std::string first_error(const std::vector<std::string>& lines, const RunRecord& run,
                        const Report& report) {
  if (!report.failures.empty()) {
    return describe(report.failures.front());
  }
  std::string error = message_of(lines, [](const auto& line) { return contains(line, kError); });
  if (!error.empty()) {
    return error;
  }
  const std::vector<std::string> shown = split(run.output + run.console, '\n');
  return shown.empty() ? "it gave no reason" : shown.back();
}

bool has_kept(const Report& report, KeptReason reason) {
  return std::any_of(report.kept.begin(), report.kept.end(),
                     [&](const Kept& kept) { return kept.reason == reason; });
}

struct Verdict {
  Outcome outcome;
  std::string reason;
};

/// A run that reports success.
Verdict check_success(const RunRecord& run, const std::string& log,
                      const std::vector<std::string>& lines, const Report& report) {
  const std::string error = first_error(lines, run, report);
  if (contains(log, kRemovalFailed)) {
    return {Outcome::failed, "not everything was removed; " + error};
  }
  const auto harmless = run.has_kernel_modules ? 0 : count(log, kDepmodFailed);
  if (count(log, kError) > harmless) {
    return {Outcome::failed, error};
  }
  const auto loaded = count(log, kLoaded);
  const auto unloaded = count(log, kUnloaded);
  if (loaded != unloaded) {
    return {Outcome::failed,
            "the driver was unloaded before the run could do it, so its files are left; run the "
            "uninstaller again"};
  }
  if (const auto caught = all_between(lines, kDirectoryFailed, ""); !caught.empty()) {
    return {Outcome::failed, "a directory could not be removed: " + caught.front()};
  }
  if (has_kept(report, KeptReason::not_compared) && !run.has_md5sum) {
    return {Outcome::failed, "without md5sum no file could be compared"};
  }
  const bool left_alone = in_container(report);
  if (!run.registrations.empty() && !left_alone) {
    return {Outcome::failed, "left in DKMS: " + run.registrations.front()};
  }
  if (std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return (contains(line, kFailedToRead) || contains(line, kFailedToOpen)) &&
               contains(line, kUninstallManifestPath);
      })) {
    return {Outcome::failed, "the manifest cannot be read, so files, links and services are left"};
  }
  if (contains(log, kNoManifest) && (unloaded > 0 || run.installed)) {
    return {Outcome::failed, "there is no manifest, so the files have to be removed by hand"};
  }
  const std::string note = left_alone ? "in a container: services and DKMS are not touched" : "";
  if (has_kept(report, KeptReason::changed) || has_kept(report, KeptReason::not_compared)) {
    return {Outcome::kept, note};
  }
  if (has_kept(report, KeptReason::toolkit) || has_kept(report, KeptReason::program)) {
    return {Outcome::shared, note};
  }
  return {report.removed.empty() && unloaded == 0 ? Outcome::clean : Outcome::done, note};
}

Verdict check_by_log(const RunRecord& run, const std::vector<std::string>& lines,
                     const Report& report) {
  const int status = run.status.value_or(0);
  if (const auto never = kNeverStarted.find(status); never != kNeverStarted.end()) {
    return {Outcome::nothing_done, never->second};
  }
  if (!run.log) {
    return {Outcome::unknown, "there is no log of a run"};
  }
  const std::string& log = *run.log;
  // A second run empties the log while the first one continues to write at its old offset.
  if (has_nul(log) || count(log, kDriverPrefix) > 1) {
    return {Outcome::unknown, "two runs wrote to the log at the same time"};
  }
  if (lines.empty() || !lines.back().ends_with(std::string(kClosing) + kLogPath)) {
    return {Outcome::unfinished,
            "the log has no closing line: the run is still active, was interrupted, or could not "
            "write"};
  }
  if (contains(log, kUtilitiesMissing)) {
    return {Outcome::nothing_done, first_error(lines, run, report)};
  }
  const bool succeeded = contains(log, kSucceeded);
  if (run.status && succeeded != (status == 0)) {
    return {Outcome::unknown, "the log and the exit status are of different runs"};
  }
  // The run prints how it ended; an empty file means that the standard error was not kept.
  if (!run.console.empty() && !contains(run.console, succeeded ? kSucceeded : kFailed)) {
    return {Outcome::unknown, "the log and the standard error are of different runs"};
  }
  if (succeeded) {
    return check_success(run, log, lines, report);
  }
  const std::string error = first_error(lines, run, report);
  if (status == static_cast<int>(ResultCode::module_busy) ||
      (!run.status && contains(log, kBusy))) {
    return {Outcome::busy, error};
  }
  return {Outcome::failed, error};
}

}  // namespace

void check_run(const RunRecord& run, Report& report) {
  const std::vector<std::string> lines = split(run.log.value_or(""), '\n');
  report.status = run.status;
  report.console = run.console;
  report.output = run.output;
  report.log = run.log.value_or("");
  report.failures = failures_of(lines, run.output + run.console);
  take_paths(lines, report);
  auto [outcome, reason] = check_by_log(run, lines, report);
  report.outcome = outcome;
  report.reason = std::move(reason);
}

bool came_to_the_manifest(const Report& report) {
  const bool worked = report.outcome <= Outcome::shared || report.outcome == Outcome::failed;
  return worked && (contains(report.log, kUnloaded) || !contains(report.log, kLoaded));
}

bool in_container(const Report& report) { return contains(report.log, kInContainer); }

bool ended_in_the_manifest(const Report& report) { return contains(report.log, kRemovalFailed); }

}  // namespace valta::inspect
