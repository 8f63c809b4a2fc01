#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sysexits.h>

#include "inspect/after.h"
#include "inspect/archive/archive.h"
#include "inspect/before.h"
#include "inspect/dry_run/stubs.h"
#include "inspect/findings/findings.h"
#include "inspect/options.h"
#include "inspect/report/json.h"
#include "inspect/report/text.h"
#include "inspect/watch.h"
#include "utils/progress.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

/// For the checks before and after the dry run.
constexpr int kSecondsForLooks = 3;

/// Prints `report` and returns the exit status for it.
int answer(const Report& report, const Options& options) {
  if (options.json) {
    std::puts(json_of(report).c_str());
  } else {
    print_text(report, options.verbose);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    std::fprintf(stderr, "valta-driver-inspect: cannot write: %s\n", std::strerror(errno));
    return EX_IOERR;
  }
  return exit_status(report);
}

/// Saves for `report` in `file`; `status` when that succeeds.
int save_for(const Report& report, const std::string& file, int status) {
  begin_step("Saving");
  try {
    const Record record = save(file, report);
    for (const std::string& loss : texts(record, kLoss)) {
      std::fprintf(stderr, "valta-driver-inspect: not saved: %s\n", loss.c_str());
    }
    return status;
  } catch (const ArchiveError& error) {
    std::fprintf(stderr, "valta-driver-inspect: nothing is saved: %s\n", error.what());
    return EX_CANTCREAT;
  }
}

int complain(const std::exception& error) {
  std::fprintf(stderr, "valta-driver-inspect: %s\n", error.what());
  return EX_SOFTWARE;
}

int look_and_answer(const Options& options) {
  try {
    const auto start = std::chrono::steady_clock::now();
    Report report = options.command == Command::before
                        ? before(options.program, options.timeout,
                                 options.save.empty() ? Saving::no : Saving::yes)
                        : after(options.status, options.console);
    report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const int status = answer(report, options);
    return options.save.empty() ? status : save_for(report, options.save, status);
  } catch (const std::exception& error) {
    return complain(error);
  }
}

int run(const Options& options) {
  const bool is_before = options.command == Command::before;
  const int seconds = options.timeout + (is_before ? kSecondsForLooks : 0);
  if (const auto status = run_watched([&] { return look_and_answer(options); }, seconds)) {
    return *status;
  }
  Report report;
  report.command = options.command;
  report.seconds = seconds;
  look_at_silence(seconds, report);
  return answer(report, options);
}

}  // namespace
}  // namespace valta::inspect

int main(int argc, char** argv) {
  using namespace valta::inspect;
  // If the caller ignores it, the kernel does not report how a child ended.
  std::signal(SIGCHLD, SIG_DFL);
  // A file size limit of the caller then makes a write fail, instead of killing this process.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    const auto status = run_as_stub(valta::last_component(argv[0]), {argv + 1, argv + argc});
    return status ? *status : run(read_options(argc, argv));
  } catch (const std::exception& error) {
    return complain(error);
  }
}
