#include "inspect/report/run_check.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string_view>

#include "log/log.h"
#include "uninstall/result_code.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

constexpr std::string_view kError = "Error: ";
constexpr std::string_view kRemovalFailed = "Error: failed in removing.";
constexpr std::string_view kSucceeded = "Successfully uninstall driver.";
constexpr std::string_view kFailed = "Driver uninstall failed.";
constexpr std::string_view kLoaded = " installed. Uninstall...";
constexpr std::string_view kUnloaded = "Successful to uninstall driver ";

/// Statuses of a program, or of the shell in its place, that did not come to do anything.
const std::map<int, const char*> kNeverStarted = {
    {1, "its log could not be opened, or the program not be loaded"},
    {7, "it was not root any more"},
    {126, "the program could not be executed"},
    {127, "the program was not found"},
    {255, "it was not run as root"},
};

const std::map<int, const char*> kMeanings = {
    {static_cast<int>(ResultCode::dkms_failed), "DKMS keeps a version or its sources"},
    {static_cast<int>(ResultCode::file_failed), "a file could not be deleted"},
    {static_cast<int>(ResultCode::link_failed), "a link could not be deleted"},
    {static_cast<int>(ResultCode::shared_link_failed), "a shared link could not be deleted"},
    {static_cast<int>(ResultCode::service_remains), "systemd still knows a service"},
};

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

std::size_t count(std::string_view text, std::string_view part) {
  std::size_t found = 0;
  for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

/// What stands between `before` and `after` in the lines that have both, each once. Some messages
/// lack their line end, so neither has to stand at an end of its line.
std::vector<std::string> all_between(const std::vector<std::string>& lines, std::string_view before,
                                     std::string_view after) {
  std::vector<std::string> found;
  std::set<std::string> seen;
  for (const std::string& line : lines) {
    const auto start = line.find(before);
    const auto end = start == std::string::npos ? start : line.rfind(after);
    if (end == std::string::npos || end < start + before.size()) {
      continue;
    }
    std::string text = line.substr(start + before.size(), end - start - before.size());
    if (seen.insert(text).second) {
      found.push_back(std::move(text));
    }
  }
  return found;
}

void take_paths(const std::vector<std::string>& lines, Report& report) {
  for (auto& path : all_between(lines, "Uninstall: ", " Succeed.")) {
    report.removed.push_back({std::move(path), "other"});
  }
  for (auto& module : all_between(lines, kUnloaded, ".")) {
    report.unloaded.push_back(std::move(module));
  }
  const auto keep = [&](std::string_view before, std::string_view after, const char* reason) {
    for (auto& path : all_between(lines, before, after)) {
      report.kept.push_back({std::move(path), reason});
    }
  };
  keep("Uninstall: md5sum of ", " has changed. Skipping.", "changed");
  keep("", "'s md5 mismatch, skip remove.", "changed");
  keep("Toolkit not uninstalled. Skipping remove ", ".", "toolkit");
  keep("Driver not uninstalled. Skipping remove ", ".", "program");
  keep("Uninstall: md5sum of ", " is empty. Skipping.", "not-compared");
  keep("Uninstall: ", " not empty skip.", "not-empty");
}

/// The line of `lines` that `fits`, without what stands in front of its message; empty for none.
template <typename Fits>
std::string message_of(const std::vector<std::string>& lines, const Fits& fits) {
  const auto found = std::find_if(lines.begin(), lines.end(), fits);
  if (found == lines.end()) {
    return "";
  }
  const auto prefix = found->find(": ");
  const bool has_prefix = found->starts_with("Error: ") || found->starts_with("Warning: ");
  return has_prefix ? found->substr(found->find_first_not_of(' ', prefix + 1)) : *found;
}

/// What went wrong: said past the log, above "failed in removing.", or in the first error.
std::string first_error(const std::vector<std::string>& lines, const Evidence& evidence) {
  const std::vector<std::string> shown = split(evidence.output + evidence.console, '\n');
  const auto removing = std::find(lines.begin(), lines.end(), kRemovalFailed);
  if (removing != lines.begin() && removing != lines.end()) {
    const std::string past_log = message_of(shown, [](const auto& line) {
      return contains(line, "'s handler is not found.") || contains(line, "Error happened in ");
    });
    return past_log.empty() ? message_of({*(removing - 1)}, [](const auto&) { return true; })
                            : past_log;
  }
  std::string error = message_of(lines, [](const auto& line) { return contains(line, kError); });
  if (!error.empty()) {
    return error;
  }
  return shown.empty() ? "it gave no reason" : shown.back();
}

bool has_kept(const Report& report, std::string_view reason) {
  return std::any_of(report.kept.begin(), report.kept.end(),
                     [&](const Kept& kept) { return kept.reason == reason; });
}

struct Verdict {
  Outcome outcome;
  std::string reason;
};

/// A run that ended well by its own account.
Verdict judge_success(const Evidence& evidence, const std::string& log,
                      const std::vector<std::string>& lines, const Report& report) {
  const std::string error = first_error(lines, evidence);
  if (contains(log, kRemovalFailed)) {
    return {Outcome::failed, "not everything was removed; " + error};
  }
  if (contains(log, kError)) {
    return {Outcome::failed, error};
  }
  const auto loaded = count(log, kLoaded);
  const auto unloaded = count(log, kUnloaded);
  if (loaded != unloaded) {
    return {Outcome::failed,
            "the driver was gone before the run unloaded it, its files stay; run it once more"};
  }
  if (const auto caught = all_between(lines, "Warning: catched ", ""); !caught.empty()) {
    return {Outcome::failed, "a directory could not be removed: " + caught.front()};
  }
  if (has_kept(report, "not-compared")) {
    return {Outcome::failed, "files were kept as their md5sum could not be had"};
  }
  const bool in_container = contains(log, "in side docker");
  if (!evidence.registrations.empty() && !in_container) {
    return {Outcome::failed, "DKMS keeps " + evidence.registrations.front()};
  }
  if (contains(log, "parse uninstall manifest error.") && (unloaded > 0 || evidence.installed)) {
    return {Outcome::failed, "no manifest, so the files have to be removed by hand"};
  }
  const std::string note = in_container ? "in a container: services and DKMS were left alone" : "";
  if (has_kept(report, "changed")) {
    return {Outcome::kept, note};
  }
  if (has_kept(report, "toolkit") || has_kept(report, "program")) {
    return {Outcome::shared, note};
  }
  return {report.removed.empty() && unloaded == 0 ? Outcome::clean : Outcome::done, note};
}

Verdict judge_run(const Evidence& evidence, const std::vector<std::string>& lines,
                  const Report& report) {
  const int status = evidence.status.value_or(0);
  if (const auto never = kNeverStarted.find(status); never != kNeverStarted.end()) {
    return {Outcome::nothing_done, never->second};
  }
  if (!evidence.log) {
    return {Outcome::unknown, "there is no log of a run"};
  }
  const std::string& log = *evidence.log;
  if (lines.empty() ||
      !lines.back().ends_with(std::string("Driver uninstall log is in ") + kLogPath)) {
    return {Outcome::unfinished,
            "the log has no closing line: the run goes on, was cut off, or had no room to log"};
  }
  if (contains(log, "Error: Check utils failed.")) {
    return {Outcome::nothing_done, first_error(lines, evidence)};
  }
  const bool succeeded = contains(log, kSucceeded);
  if (evidence.status && succeeded != (status == 0)) {
    return {Outcome::unknown, "the log is of another run than the status"};
  }
  if (contains(evidence.console, succeeded ? kFailed : kSucceeded)) {
    return {Outcome::unknown, "the log is of another run than the console"};
  }
  if (succeeded) {
    return judge_success(evidence, log, lines, report);
  }
  const std::string error = first_error(lines, evidence);
  if (status == static_cast<int>(ResultCode::module_busy) ||
      (!evidence.status && contains(error, "busy. The packaged driver"))) {
    return {Outcome::busy, error};
  }
  const auto meaning = kMeanings.find(status);
  return {Outcome::failed, meaning == kMeanings.end() ? error : meaning->second + ("; " + error)};
}

}  // namespace

void judge(const Evidence& evidence, Report& report) {
  const std::vector<std::string> lines = split(evidence.log.value_or(""), '\n');
  report.status = evidence.status;
  report.console = evidence.console;
  report.output = evidence.output;
  report.log = evidence.log.value_or("");
  take_paths(lines, report);
  auto [outcome, reason] = judge_run(evidence, lines, report);
  report.outcome = outcome;
  report.reason = std::move(reason);
}

bool came_to_the_manifest(const Report& report) {
  const bool worked = report.outcome <= Outcome::shared || report.outcome == Outcome::failed;
  return worked && (contains(report.log, kUnloaded) || !contains(report.log, kLoaded));
}

bool ended_in_the_manifest(const Report& report) { return contains(report.log, kRemovalFailed); }

}  // namespace valta::inspect
