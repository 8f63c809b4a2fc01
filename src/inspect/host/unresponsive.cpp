#include "inspect/host/unresponsive.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "utils/shared_memory.h"

namespace valta::inspect {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 1000ms;
constexpr auto kLeastPatience = 200ms;
constexpr auto kPause = 1ms;

/// Tests all mounts from number `first` on, and stores the number of the current one in `at`.
[[noreturn]] void ask(const std::vector<Mount>& mounts, std::size_t first,
                      std::atomic<std::size_t>& at) {
  for (at = first; at < mounts.size(); ++at) {
    struct statx status {};
    // Without FORCE_SYNC, the kernel answers from its cache for a server that is down.
    statx(AT_FDCWD, mounts[at].point.c_str(),
          AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_FORCE_SYNC, STATX_BASIC_STATS, &status);
  }
  _exit(0);
}

/// Whether `child` ends before `at` has the same value for `patience`.
bool ends(pid_t child, const std::atomic<std::size_t>& at, std::chrono::milliseconds patience) {
  std::size_t seen = at;
  auto since = Clock::now();
  while (waitpid(child, nullptr, WNOHANG) == 0) {
    if (at != seen) {
      seen = at;
      since = Clock::now();
    } else if (Clock::now() - since > patience) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace

std::vector<std::string> unresponsive_points(const std::vector<Mount>& mounts) {
  std::vector<std::string> points;
  SharedMemory<std::atomic<std::size_t>> at;
  for (std::size_t first = 0; first < mounts.size(); first = *at + 1) {
    *at = first;
    const pid_t child = fork();
    if (child == 0) {
      ask(mounts, first, *at);
    }
    // Limits the total time if many file systems do not answer.
    const auto patience = std::max<std::chrono::milliseconds>(
        kPatience / static_cast<int>(points.size() + 1), kLeastPatience);
    if (child < 0 || ends(child, *at, patience)) {
      break;
    }
    kill(child, SIGKILL);
    points.push_back(mounts[*at].point);
  }
  return points;
}

}  // namespace valta::inspect
