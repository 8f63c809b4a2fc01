#include "inspect/dry_run/limits.h"

#include <csignal>
#include <fstream>
#include <sys/resource.h>

namespace valta::inspect {
namespace {

constexpr int kKilledFirst = 1000;

rlimit caller_files{};

}  // namespace

void raise_limits() {
  getrlimit(RLIMIT_NOFILE, &caller_files);
  const rlimit most_files = {caller_files.rlim_max, caller_files.rlim_max};
  setrlimit(RLIMIT_NOFILE, &most_files);
  const rlimit any_size = {RLIM_INFINITY, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &any_size);
}

void restore_limits() {
  setrlimit(RLIMIT_NOFILE, &caller_files);
  std::signal(SIGXFSZ, SIG_DFL);
}

void offer_memory() { std::ofstream("/proc/self/oom_score_adj") << kKilledFirst; }

}  // namespace valta::inspect
