#include "inspect/host/processes.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "utils/listing.h"
#include "utils/paths.h"
#include "utils/regular_file.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

std::string first_line(const std::string& path) {
  std::string text;
  read_regular_file(path, text);
  return text.substr(0, text.find('\n'));
}

/// The service of the system in the path of a control group.
std::string service_of(const std::string& group) {
  const std::string name = last_component(group);
  const bool is_users = group.find("/user@") != std::string::npos;
  return name.ends_with(".service") && !is_users ? name : "";
}

/// The number of the character device that is open at `link`; 0 for any other file. Asks only for
/// what the kernel knows itself: a request to a server that is down would hang.
dev_t device_at(const std::string& link) {
  struct statx status {};
  return statx(AT_FDCWD, link.c_str(), AT_STATX_DONT_SYNC, STATX_TYPE, &status) == 0 &&
                 S_ISCHR(status.stx_mode)
             ? makedev(status.stx_rdev_major, status.stx_rdev_minor)
             : 0;
}

std::vector<std::string> process_numbers() {
  std::vector<std::string> numbers = names_in("/proc");
  std::erase_if(numbers, [](const std::string& name) {
    return name.find_first_not_of("0123456789") != std::string::npos;
  });
  return numbers;
}

/// Whether both are the same file. Does not ask a file system.
bool same_place(const std::string& one, const std::string& other) {
  struct statx a {};
  struct statx b {};
  return statx(AT_FDCWD, one.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &a) == 0 &&
         statx(AT_FDCWD, other.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &b) == 0 &&
         a.stx_ino == b.stx_ino && a.stx_dev_major == b.stx_dev_major &&
         a.stx_dev_minor == b.stx_dev_minor;
}

}  // namespace

std::vector<Holder> processes_with(const Devices& devices) {
  std::vector<Holder> holders;
  std::error_code ignored;
  for (const std::string& pid : process_numbers()) {
    const fs::path process = "/proc/" + pid;
    std::map<std::string, int> found;
    for (const char* const kind : {"fd", "map_files"}) {
      for (const auto& file : fs::directory_iterator(process / kind, ignored)) {
        const std::string path = fs::read_symlink(file.path(), ignored);
        if (is_below(path, "/dev") && devices.holds(device_at(file.path()))) {
          // Several mappings of one open file count once.
          int& uses = found[path];
          uses = kind == std::string_view("fd") ? uses + 1 : std::max(uses, 1);
        }
      }
    }
    for (const auto& [device, uses] : found) {
      holders.push_back({pid, first_line(process / "comm"), device,
                         service_of(first_line(process / "cgroup")), uses});
    }
  }
  return holders;
}

std::vector<std::string> processes_called(const std::string& name) {
  std::vector<std::string> found;
  std::error_code ignored;
  for (const std::string& pid : process_numbers()) {
    const fs::path process = "/proc/" + pid;
    if (fs::read_symlink(process / "exe", ignored).filename() == name &&
        same_place(process / "root", "/")) {
      found.push_back(pid);
    }
  }
  return found;
}

}  // namespace valta::inspect
