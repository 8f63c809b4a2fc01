#include "remove/remove.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "inspect/after.h"
#include "inspect/archive/archive.h"
#include "inspect/before.h"
#include "inspect/host/installation.h"
#include "inspect/host/program.h"
#include "inspect/host/run_log.h"
#include "inspect/report/json.h"
#include "inspect/report/text.h"
#include "inspect/watch.h"
#include "installer/remove_driver.h"
#include "remove/runs.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/progress.h"
#include "utils/regular_file.h"
#include "utils/shell.h"
#include "utils/spawn.h"
#include "utils/text.h"
#include "utils/wording.h"

namespace valta::inspect::removal {
namespace fs = std::filesystem;

namespace {

constexpr int kSecondsOfDryRun = 600;
constexpr int kSecondsOfLooks = 300;

// Exit statuses.
constexpr int kKept = 1;  ///< the largest one of a run that succeeds
constexpr int kNothingDone = 2;
constexpr int kUnknown = 3;
constexpr int kMayRun = 128;  ///< added to the status of a prediction that allows the run
constexpr double kMegabyte = 1e6;

/// The paths of the stack on this host: those of the manifest, the configuration, and everything
/// in them. Links in their directories are resolved.
std::set<std::string> paths_of_stack() {
  std::vector<fs::path> trees(kConfigurationPaths.begin(), kConfigurationPaths.end());
  for (const ManifestEntry& entry : read_installation().entries) {
    const bool is_unit = target_of(entry.type) == EntryTarget::unit;
    trees.emplace_back(is_unit                  ? unit_file_path(entry.path)
                       : names_path(entry.type) ? entry.path
                                                : "");
  }
  std::set<std::string> paths;
  for (const fs::path& tree : trees) {
    std::error_code ignored;
    const fs::path place = fs::canonical(tree.parent_path(), ignored) / tree.filename();
    if (tree.is_absolute() && lexists(place)) {
      const auto below = is_symlink(place) ? std::vector<std::string>() : paths_below(place);
      paths.insert(below.begin(), below.end());
      paths.insert(place);
    }
  }
  return paths;
}

/// The exit status of `process`, as a shell has it, once it has ended.
int wait_for(pid_t process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Does `work`, which looks at the host, in a watched process, and returns its exit status.
int watched(const std::function<int()>& work, int seconds) {
  const auto status = run_watched(
      [&] {
        try {
          return work();
        } catch (const std::exception& error) {
          std::printf("valta-driver-remove: %s\n", error.what());
          return kNothingDone;
        }
      },
      seconds);
  if (!status) {
    std::printf("This host did not answer within %d seconds, at this step: %s\n", seconds,
                current_step());
  }
  return status.value_or(kUnknown);
}

/// Shows the prediction of a run and the decisions to make, and saves in the directory `run`.
/// Returns the exit status, with `kMayRun` if the run may start.
int predict(const Options& options, const std::string& run) {
  const Report report = before(program_beside(), kSecondsOfDryRun, Saving::yes);
  print_text(report, options.verbose);
  const int status = exit_status(report);
  std::puts("");
  const bool is_idle = report.removed.empty() && report.unloaded.empty();
  const bool is_blocked =
      std::any_of(report.findings.begin(), report.findings.end(),
                  [](const Finding& f) { return f.severity == Severity::blocks; });
  if (options.dry_run || status == kUnknown) {
    return status;
  }
  if (status > kKept || (is_blocked && options.yes && !is_idle)) {
    std::puts("Fix the problems above first.");
    return kNothingDone;
  }
  if (is_idle) {
    std::puts("There is nothing to remove.");
    return status;
  }
  for (const Finding& finding : report.findings) {
    if (finding.severity == Severity::blocks ||
        (finding.id.row().kind == StepKind::decide && !finding.next.empty())) {
      std::printf("To decide: %s\n", escaped(finding.text).c_str());
    }
  }
  write_new_file(run + kBefore, json_of(report) + "\n");
  std::vector<std::string> losses = {
      "this host has no tar that keeps extended attributes and ACLs"};
  if (options.save && can_save()) {
    begin_step("Saving");
    const Record record = save(run + kArchive, report);
    losses = texts(record, kLoss);
    std::printf("Saved: %s, %.1f MB, in %s; it can contain secrets.\n",
                counted(texts(record, kSaved).size(), "path").c_str(),
                static_cast<double>(fs::file_size(run + kArchive)) / kMegabyte, run.c_str());
  }
  for (const std::string& loss : options.save ? losses : std::vector<std::string>()) {
    std::printf("Not saved%s: %s\n", options.yes ? " (--no-save runs without it)" : "",
                escaped(loss).c_str());
  }
  return options.yes && options.save && !losses.empty() ? kNothingDone : status | kMayRun;
}

/// Whether the answer at the terminal is yes.
bool is_confirmed(bool is_saved) {
  std::printf("Remove the driver stack from this host? %s[y/N] ",
              is_saved ? "" : "It cannot be undone. ");
  std::fflush(stdout);
  std::string line;
  std::getline(std::cin, line);
  return line == "y" || line == "yes";
}

/// Sends a stream of this process to a file.
void redirect(int stream, const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
  dup2(file.get(), stream);
}

int run_uninstaller(const std::string& run) {
  const std::string program = program_beside();
  const pid_t child = fork();
  if (child == 0) {
    redirect(STDOUT_FILENO, run + kOutput);
    redirect(STDERR_FILENO, run + kConsole);
    execl(program.c_str(), program.c_str(), nullptr);
    _exit(kNotRun);
  }
  return child < 0 ? kNotRun : wait_for(child);
}

/// Records the states that undo may overwrite.
void note_what_is_left(const std::string& run, const Record& record) {
  std::vector<std::string> paths = texts(record, kMade);
  for (const auto& [path, state] : saved_states(record)) {
    paths.push_back(path);
  }
  Record left;
  for (const std::string& path : paths) {
    left[kSaved].push_back(field_for(path, state_of(path)));
  }
  write_new_file(run + kLeft, format_record(left));
}

/// Runs the uninstaller and checks the run. All output goes to files in the directory `run`.
int work(const std::string& run, const Record& record, bool verbose) {
  redirect(STDIN_FILENO, "/dev/null");
  redirect(STDOUT_FILENO, run + kPage);
  redirect(STDERR_FILENO, run + kPage);
  const std::set<std::string> earlier = paths_of_stack();
  const auto time_of_earlier_log = time_of_log();
  const int status_of_run = run_uninstaller(run);
  int status = watched(
      [&] {
        note_what_is_left(run, record);
        if (time_of_log() != time_of_earlier_log) {
          write_new_file(run + kLogCopy, read_log().value_or(""));
        }
        std::string console;
        read_regular_file(run + kConsole, console);
        const Report report = after(status_of_run, console);
        print_text(report, verbose);
        write_new_file(run + kAfter, json_of(report) + "\n");
        return exit_status(report);
      },
      kSecondsOfLooks);
  const auto saved = saved_states(record);
  for (const std::string& path : earlier) {
    if (!record.empty() && !lexists(path) && !saved.contains(path)) {
      std::printf("\nRemoved, but neither predicted nor saved: %s\n", escaped(path).c_str());
      status = std::max(status, kKept);
    }
  }
  std::fflush(nullptr);
  return status;
}

/// Whether the host is as it was when the archive of `record` was written.
bool is_unchanged(const Record& record) {
  const auto saved = saved_states(record);
  const auto changed = std::find_if(saved.begin(), saved.end(), [](const auto& path_and_state) {
    return state_of(path_and_state.first) != path_and_state.second;
  });
  if (changed != saved.end()) {
    std::printf("%s has changed since it was saved.\n", escaped(changed->first).c_str());
  }
  return changed == saved.end();
}

/// Runs in a process that survives this one and its terminal, and shows the result. Returns the
/// exit status.
int run_and_show(const std::string& run, const Record& record, bool verbose) {
  std::printf("Running. Ctrl-C or a closed terminal does not stop the run. Its results: %s\n\n",
              run.c_str());
  std::fflush(nullptr);
  const pid_t worker = fork();
  if (worker == 0) {
    setsid();
    _exit(work(run, record, verbose));
  }
  const int status = wait_for(worker);
  std::string page;
  read_regular_file(run + kPage, page);
  std::printf("%s\nThe records of the run are in %s\n", page.c_str(), run.c_str());
  if (!record.empty()) {
    std::printf("To put back what it removed:\n      valta-driver-remove undo %s\n",
                fs::path(run).parent_path().filename().c_str());
  }
  return status;
}

}  // namespace

int remove_stack(const Options& options) {
  if (options.dry_run) {
    return watched([&] { return predict(options, ""); }, kSecondsOfDryRun);
  }
  if (!options.yes && (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)) {
    throw std::runtime_error("there is no terminal to ask on: use --yes");
  }
  const Descriptor lock = lock_runs();
  const std::string run = make_run() + "/";
  const int prediction =
      watched([&] { return predict(options, run); }, kSecondsOfDryRun + kSecondsOfLooks);
  const bool is_saved = lexists(run + kArchive);
  const Record record = is_saved ? read_record(record_of(run + kArchive)) : Record();
  if (prediction < kMayRun || !(options.yes || is_confirmed(is_saved)) || !is_unchanged(record)) {
    fs::remove_all(run);
    std::puts("The uninstaller was not run.");
    return prediction < kMayRun ? prediction : kNothingDone;
  }
  const int status = run_and_show(run, record, options.verbose);
  delete_old_runs();
  return status;
}

}  // namespace valta::inspect::removal
