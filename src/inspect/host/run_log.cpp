#include "inspect/host/run_log.h"

#include <filesystem>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>

#include "log/log.h"
#include "utils/regular_file.h"

namespace valta::inspect {
namespace {

/// When the file at `path` was last changed.
std::pair<std::int64_t, std::int64_t> time_of(const std::string& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return {status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

}  // namespace

std::optional<std::string> read_log() {
  std::string text;
  return read_regular_file(kLogPath, text) ? std::optional(text) : std::nullopt;
}

std::pair<std::int64_t, std::int64_t> time_of_log() { return time_of(kLogPath); }

std::string kernel_module_directory() {
  utsname kernel{};
  uname(&kernel);
  return std::string("/lib/modules/") + kernel.release;
}

bool dependencies_are_newer_than_log() {
  return time_of(kernel_module_directory() + "/modules.dep") > time_of_log();
}

std::string full_log_directory() {
  std::filesystem::path place = std::filesystem::path(kLogPath).parent_path();
  struct statvfs room {};
  while (statvfs(place.c_str(), &room) != 0 && place.has_relative_path()) {
    place = place.parent_path();
  }
  // Some file systems in memory have no limit and report 0 of 0.
  const bool full =
      (room.f_bfree == 0 && room.f_blocks != 0) || (room.f_ffree == 0 && room.f_files != 0);
  return full ? place.string() : "";
}

}  // namespace valta::inspect
