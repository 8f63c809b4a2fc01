#include "inspect/watch.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include "utils/progress.h"

namespace valta::inspect {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSilentSeconds = 2;

[[noreturn]] void work_as_child(const std::function<int()>& work, pid_t parent,
                                const sigset_t& signals) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(EX_SOFTWARE);
  }
  sigprocmask(SIG_SETMASK, &signals, nullptr);
  const int status = work();
  std::fflush(nullptr);
  _exit(status);
}

/// Waits for `child` to end; false when `seconds` have passed.
bool wait_for(pid_t child, int& wait_status, int seconds, const sigset_t& of_child) {
  const bool terminal = isatty(STDERR_FILENO) != 0;
  bool shown = false;
  int passed = 0;
  const auto start = Clock::now();
  while (waitpid(child, &wait_status, WNOHANG) == 0 && passed < seconds) {
    const timespec second = {1, 0};
    sigtimedwait(&of_child, nullptr, &second);
    passed = static_cast<int>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count());
    if (terminal && passed >= kSilentSeconds) {
      shown = true;
      std::fprintf(stderr, "\r\033[K%s: %d s", current_step(), passed);
    }
  }
  if (shown) {
    std::fprintf(stderr, "\r\033[K");
  }
  return passed < seconds;
}

}  // namespace

std::optional<int> run_watched(const std::function<int()>& work, int seconds) {
  sigset_t of_child;
  sigset_t earlier;
  sigemptyset(&of_child);
  sigaddset(&of_child, SIGCHLD);
  sigprocmask(SIG_BLOCK, &of_child, &earlier);
  begin_step("Starting");
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) {
    return work();
  }
  if (child == 0) {
    work_as_child(work, parent, earlier);
  }
  int wait_status = 0;
  if (!wait_for(child, wait_status, seconds, of_child)) {
    kill(child, SIGKILL);
    return std::nullopt;
  }
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : EX_SOFTWARE;
}

}  // namespace valta::inspect
