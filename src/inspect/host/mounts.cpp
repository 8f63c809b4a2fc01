#include "inspect/host/mounts.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <sys/mount.h>
#include <utility>

#include "utils/files.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

/// File systems without files of their own.
constexpr std::array<std::string_view, 19> kKernelTypes = {
    "autofs", "binfmt_misc", "bpf",        "cgroup",  "cgroup2", "configfs", "debugfs",
    "devpts", "devtmpfs",    "efivarfs",   "fusectl", "mqueue",  "nsfs",     "proc",
    "pstore", "rpc_pipefs",  "securityfs", "sysfs",   "tracefs"};

constexpr std::array<std::pair<std::string_view, unsigned long>, 4> kFlags = {
    {{"ro", MS_RDONLY}, {"nosuid", MS_NOSUID}, {"nodev", MS_NODEV}, {"noexec", MS_NOEXEC}}};

constexpr std::size_t kPoint = 4;
constexpr std::size_t kOptions = 5;

unsigned long flags_of(std::string_view options) {
  unsigned long flags = 0;
  FieldReader reader(options, ',');
  while (const auto option = reader.next()) {
    for (const auto& [name, flag] : kFlags) {
      flags |= *option == name ? flag : 0;
    }
  }
  return flags;
}

/// Blanks, tabs, line feeds and backslashes stand as "\" and three octal digits.
std::string unescape(std::string_view field) {
  std::string text;
  for (std::size_t at = 0; at < field.size(); ++at) {
    if (field[at] != '\\' || at + 3 >= field.size()) {
      text += field[at];
      continue;
    }
    text += static_cast<char>((field[at + 1] - '0') * 64 + (field[at + 2] - '0') * 8 +
                              (field[at + 3] - '0'));
    at += 3;
  }
  return text;
}

bool is_below(std::string_view path, std::string_view directory) {
  return path.starts_with(directory) &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

}  // namespace

std::vector<Mount> read_mounts() {
  std::string text;
  read_file("/proc/self/mountinfo", text);
  return parse_mountinfo(text);
}

int mount_of(int descriptor) {
  std::string text;
  read_file("/proc/self/fdinfo/" + std::to_string(descriptor), text);
  const auto number = value_after(text, "mnt_id:");
  return number ? std::atoi(number->c_str()) : -1;
}

std::vector<Mount> parse_mountinfo(std::string_view text) {
  std::vector<Mount> mounts;
  FieldReader lines(text, '\n');
  while (const auto line = lines.next()) {
    const std::vector<std::string> fields = split(*line, ' ');
    const auto dash = std::find(fields.begin(), fields.end(), "-");
    if (fields.size() <= kOptions || fields.end() - dash < 4) {
      continue;
    }
    mounts.push_back({std::atoi(fields[0].c_str()), unescape(fields[kPoint]), *(dash + 1),
                      flags_of(fields[kOptions]) | (flags_of(*(dash + 3)) & MS_RDONLY)});
  }
  std::stable_sort(mounts.begin(), mounts.end(),
                   [](const Mount& a, const Mount& b) { return a.point < b.point; });
  return mounts;
}

bool holds_files(const Mount& mount) {
  return std::find(kKernelTypes.begin(), kKernelTypes.end(), mount.type) == kKernelTypes.end() &&
         !is_below(mount.point, "/proc") && !is_below(mount.point, "/sys") &&
         !is_below(mount.point, "/dev");
}

}  // namespace valta::inspect
