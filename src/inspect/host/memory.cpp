#include "inspect/host/memory.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "utils/regular_file.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

constexpr std::uint64_t kUnlimited = UINT64_MAX;

/// The number in a file of a control group; `kUnlimited` for "max", or where there is no such file.
std::uint64_t number_in(const std::string& path) {
  std::string text;
  return read_regular_file(path, text) && !text.starts_with("max")
             ? std::strtoull(text.c_str(), nullptr, 10)
             : kUnlimited;
}

/// The memory that the limits of the control group at `path` and of its parents still allow.
std::uint64_t left_in_groups(const std::string& hierarchy, std::string path, const char* limit,
                             const char* usage) {
  std::uint64_t left = kUnlimited;
  while (true) {
    const std::uint64_t most = number_in(hierarchy + path + "/" + limit);
    const std::uint64_t used = number_in(hierarchy + path + "/" + usage);
    if (most != kUnlimited && used != kUnlimited) {
      left = std::min(left, most - std::min(most, used));
    }
    if (path.empty()) {
      return left;
    }
    path.erase(path.rfind('/'));
  }
}

std::uint64_t left_in_own_groups() {
  std::string groups;
  read_regular_file("/proc/self/cgroup", groups);
  std::uint64_t left = kUnlimited;
  for (const std::string& line : split(groups, '\n')) {  // NUMBER:CONTROLLERS:PATH
    const auto path = line.find(":/");
    if (path == std::string::npos) {
      continue;
    }
    const std::string group = line.substr(path + 1) == "/" ? "" : line.substr(path + 1);
    if (line.starts_with("0::")) {
      left =
          std::min(left, left_in_groups("/sys/fs/cgroup", group, "memory.max", "memory.current"));
    } else if (line.find(":memory:") != std::string::npos) {
      left = std::min(left, left_in_groups("/sys/fs/cgroup/memory", group, "memory.limit_in_bytes",
                                           "memory.usage_in_bytes"));
    }
  }
  return left;
}

}  // namespace

std::uint64_t available_memory() {
  std::string text;
  read_regular_file("/proc/meminfo", text);
  const auto kilobytes = value_after(text, "MemAvailable:");
  const std::uint64_t available =
      kilobytes ? std::strtoull(kilobytes->c_str(), nullptr, 10) * 1024 : 0;
  return std::min(available, left_in_own_groups());
}

}  // namespace valta::inspect
