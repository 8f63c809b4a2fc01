#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace valta::inspect {

/// A mount that this process sees.
struct Mount {
  int id = 0;               ///< the kernel's number for it
  std::string point;        ///< absolute path
  std::string type;         ///< of the file system, as in /proc/filesystems
  unsigned long flags = 0;  ///< of mount(2): read-only, nosuid, nodev, noexec
};

/// The mounts of /proc/self/mountinfo, parents before what is mounted below them. Some may be
/// hidden by others.
[[nodiscard]] std::vector<Mount> read_mounts();

/// The number of the mount that the open file `descriptor` is on; -1 when the kernel does not tell.
[[nodiscard]] int mount_of(int descriptor);

/// The same for the text of such a file. Lines that are not understood are left out.
[[nodiscard]] std::vector<Mount> parse_mountinfo(std::string_view text);

/// Whether `mount` holds files that a run could come to delete, and not the kernel's own.
[[nodiscard]] bool holds_files(const Mount& mount);

}  // namespace valta::inspect
