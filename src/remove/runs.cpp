#include "remove/runs.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "utils/listing.h"
#include "utils/regular_file.h"

namespace valta::inspect::removal {
namespace fs = std::filesystem;
namespace {

const std::string kRuns = "/var/lib/valta-driver-remove";
constexpr std::size_t kKeptRuns = 10;

[[noreturn]] void fail_to_make(const std::string& path) {
  throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
}

}  // namespace

Descriptor lock_runs() {
  mkdir(kRuns.c_str(), S_IRWXU);
  Descriptor lock(open(kRuns.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock.is_open()) {
    fail_to_make(kRuns);
  }
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("another run or undo is still active");
  }
  return lock;
}

std::string make_run() {
  for (;; sleep(1)) {
    const std::time_t now = std::time(nullptr);
    std::array<char, 32> name{};
    std::strftime(name.data(), name.size(), "/%Y%m%d-%H%M%S", std::localtime(&now));
    std::string run = kRuns + name.data();
    if (mkdir(run.c_str(), S_IRWXU) == 0) {
      return run;
    }
    if (errno != EEXIST) {
      fail_to_make(run);
    }
  }
}

std::string find_archive(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    return fs::absolute(name);
  }
  std::vector<std::string> runs = name.empty() ? names_in(kRuns) : std::vector{name};
  const auto has = [&](const char* file) {
    return lexists(kRuns + "/" + runs.back() + "/" + file);
  };
  while (!runs.empty() && !(has(kArchive) && has(kOutput))) {
    runs.pop_back();
  }
  if (runs.empty()) {
    throw std::runtime_error(name.empty() ? "no run has an archive"
                                          : "the run " + name + " has no archive");
  }
  return kRuns + "/" + runs.back() + "/" + kArchive;
}

void delete_old_runs() {
  const std::vector<std::string> runs = names_in(kRuns);
  for (std::size_t number = 0; number + kKeptRuns < runs.size(); ++number) {
    std::error_code ignored;
    fs::remove_all(kRuns + "/" + runs[number], ignored);
  }
}

void list_runs() {
  for (const std::string& name : names_in(kRuns)) {
    const std::string run = kRuns + "/" + name;
    std::string page;
    read_regular_file(run + "/" + kPage, page);
    const std::string outcome = lexists(run + "/" + kAfter)    ? page.substr(0, page.find(':'))
                                : lexists(run + "/" + kOutput) ? "unfinished"
                                                               : "not run";
    std::printf("%s  %s%s%s\n", name.c_str(), outcome.c_str(),
                lexists(run + "/" + kArchive) ? ", saved" : "",
                lexists(run + "/" + kUndone) ? ", undone" : "");
  }
}

}  // namespace valta::inspect::removal
