#include "inspect/host/mounts.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <set>
#include <sys/mount.h>

#include "utils/paths.h"
#include "utils/regular_file.h"
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

// The fields of a line. After the last one and some that vary come "-", the type, the source and
// the options of the file system.
constexpr std::size_t kId = 0;
constexpr std::size_t kParent = 1;
constexpr std::size_t kDevice = 2;
constexpr std::size_t kRoot = 3;
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

/// Spaces, tabs, newlines and backslashes are "\" and three octal digits.
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

}  // namespace

std::vector<Mount> read_mounts() {
  std::string text;
  read_regular_file("/proc/self/mountinfo", text);
  return parse_mountinfo(text);
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
    mounts.push_back({std::atoi(fields[kId].c_str()), std::atoi(fields[kParent].c_str()),
                      fields[kDevice], unescape(fields[kRoot]), unescape(fields[kPoint]),
                      *(dash + 1),
                      flags_of(fields[kOptions]) | (flags_of(*(dash + 3)) & MS_RDONLY)});
  }
  return mounts;
}

bool holds_files(const Mount& mount) {
  return std::find(kKernelTypes.begin(), kKernelTypes.end(), mount.type) == kKernelTypes.end() &&
         !is_below(mount.point, "/proc") && !is_below(mount.point, "/sys") &&
         !is_below(mount.point, "/dev");
}

MountTree::MountTree(const std::vector<Mount>& mounts) {
  std::set<int> ids;
  for (const Mount& mount : mounts) {
    ids.insert(mount.id);
    by_place_[{mount.parent, mount.point}] = &mount;
  }
  for (const Mount& mount : mounts) {
    if (mount.point == "/" && !ids.contains(mount.parent)) {
      root_ = on(&mount, "/");
    }
  }
}

const Mount* MountTree::on(const Mount* below, const std::string& point) const {
  // The kernel prints the table in pieces. If it reuses a mount number between two pieces, the
  // parents can form a cycle.
  for (std::size_t left = by_place_.size(); left > 0; --left) {
    const auto next = by_place_.find({below->id, point});
    if (next == by_place_.end() || next->second == below) {
      break;
    }
    below = next->second;
  }
  return below;
}

const Mount* MountTree::showing(const std::string& path) const {
  const Mount* mount = root_;
  for (std::size_t end = path.find('/', 1); mount != nullptr; end = path.find('/', end + 1)) {
    mount = on(mount, path.substr(0, end));
    if (end == std::string::npos) {
      break;
    }
  }
  return mount;
}

}  // namespace valta::inspect
