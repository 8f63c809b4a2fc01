#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace valta::inspect {

/// A mount that this process sees.
struct Mount {
  int id = 0;               ///< the kernel's number for it
  int parent = 0;           ///< that of the mount that it is on
  std::string device;       ///< of the file system, such as "8:1"
  std::string root;         ///< the path in the file system that it shows
  std::string point;        ///< absolute path
  std::string type;         ///< of the file system, as in /proc/filesystems
  unsigned long flags = 0;  ///< of mount(2): read-only, nosuid, nodev, noexec
};

/// The mounts of /proc/self/mountinfo, in its order. Some may be hidden by others.
[[nodiscard]] std::vector<Mount> read_mounts();

/// The same for the text of such a file. Skips lines that it cannot parse.
[[nodiscard]] std::vector<Mount> parse_mountinfo(std::string_view text);

/// Whether `mount` can hold files that a run deletes. procfs and the like cannot.
[[nodiscard]] bool holds_files(const Mount& mount);

/// Finds mounts as the kernel does when it walks a path.
class MountTree {
 public:
  /// `mounts` must outlive the tree.
  explicit MountTree(const std::vector<Mount>& mounts);

  /// The mount that has the file at `path`, which is absolute and has no links; null when the root
  /// directory is no mount.
  [[nodiscard]] const Mount* showing(const std::string& path) const;

  /// Whether no other mount hides `mount`.
  [[nodiscard]] bool shows(const Mount& mount) const { return showing(mount.point) == &mount; }

 private:
  /// The mount on top of those that are at `point` on `below`.
  [[nodiscard]] const Mount* on(const Mount* below, const std::string& point) const;

  std::map<std::pair<int, std::string>, const Mount*> by_place_;  ///< parent and point
  const Mount* root_ = nullptr;
};

}  // namespace valta::inspect
