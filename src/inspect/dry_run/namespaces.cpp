#include "inspect/dry_run/namespaces.h"

#include <cerrno>
#include <cstring>
#include <sched.h>
#include <sys/mount.h>
#include <utility>

#include "inspect/host/mounts.h"
#include "inspect/host/unresponsive.h"
#include "utils/paths.h"

namespace valta::inspect {
namespace {

std::vector<std::string> detach_what_must_not_be_touched() {
  const std::vector<Mount> mounts = read_mounts();
  const MountTree tree(mounts);
  std::vector<Mount> asked;
  std::vector<std::string> points;
  for (const Mount& mounted : mounts) {
    if (!tree.shows(mounted) || is_below(mounted.point, "/proc")) {
      continue;
    }
    if (mounted.type == "autofs") {
      points.push_back(mounted.point);
    } else if (holds_files(mounted)) {
      asked.push_back(mounted);
    }
  }
  for (std::string& point : unresponsive_points(asked)) {
    points.push_back(std::move(point));
  }
  for (const std::string& point : points) {
    umount2(point.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
  }
  return points;
}

}  // namespace

void fail_to(const std::string& tried) {
  throw NotPossible("could not " + tried + ": " + std::strerror(errno));
}

std::vector<std::string> leave_namespaces() {
  if (unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNET) != 0) {
    fail_to("create namespaces");
  }
  // In a chroot this fails, and mounts would show up outside of it.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    fail_to("make its mounts private");
  }
  std::vector<std::string> detached = detach_what_must_not_be_touched();
  for (const Mount& mounted : read_mounts()) {
    if (holds_files(mounted)) {
      // A mount that is hidden, or that a user namespace may not change, keeps its options: its
      // access times may change.
      mount(nullptr, mounted.point.c_str(), nullptr,
            MS_REMOUNT | MS_BIND | MS_NOATIME | mounted.flags, nullptr);
    }
  }
  return detached;
}

}  // namespace valta::inspect
