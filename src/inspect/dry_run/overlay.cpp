#include "inspect/dry_run/overlay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "inspect/host/installation.h"
#include "utils/files.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

/// Directories that the image may cover for this process. What lies below the first is never part
/// of an image; of the others that is seen no more.
constexpr std::array<const char*, 4> kScratchDirectories = {"/dev/shm", "/tmp", "/run", "/mnt"};

constexpr std::array<const char*, 6> kDevices = {"null",   "zero",    "full",
                                                 "random", "urandom", "tty"};

/// Ways to reach systemd and the bus past a systemctl that only seems to act.
constexpr std::array<const char*, 3> kSockets = {"/run/systemd/private", "/run/systemd/notify",
                                                 "/run/dbus/system_bus_socket"};

void mount_or_fail(const std::string& source, const std::string& target, const char* type,
                   unsigned long flags, const std::string& options = "") {
  if (mount(source.c_str(), target.c_str(), type, flags, options.c_str()) != 0) {
    fail_to("mount " + std::string(type == nullptr ? source.c_str() : type) + " on " + target);
  }
}

void bind(const std::string& source, const std::string& target) {
  mount_or_fail(source, target, nullptr, MS_BIND);
}

bool bind_read_only(const std::string& source, const std::string& target, unsigned long flags) {
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    return false;
  }
  if (mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | flags, nullptr) !=
      0) {
    umount2(target.c_str(), MNT_DETACH);
    return false;
  }
  return true;
}

std::string path_of(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

void touch(const std::string& path) { std::ofstream(path).close(); }

/// The root of a merged file system looks like that of its upper layer.
void copy_attributes(const struct stat& from, const std::string& to) {
  const std::array<timespec, 2> times = {from.st_atim, from.st_mtim};
  if (chown(to.c_str(), from.st_uid, from.st_gid) != 0 || chmod(to.c_str(), from.st_mode) != 0 ||
      utimensat(AT_FDCWD, to.c_str(), times.data(), 0) != 0) {
    fail_to("give " + to + " the attributes of its lower layer");
  }
}

/// Only the first user namespace may set the attributes that an overlay uses by default.
std::string attribute_option(const std::string& upper) {
  return setxattr(upper.c_str(), "trusted.valta", "", 0, 0) == 0 ? "" : ",userxattr";
}

bool is_whiteout(const struct stat& status) {
  return S_ISCHR(status.st_mode) && status.st_rdev == 0;
}

/// Whether the directory `upper` hides all of the lower one.
bool is_opaque(const std::string& upper) {
  char value = 0;
  return (getxattr(upper.c_str(), "trusted.overlay.opaque", &value, 1) == 1 ||
          getxattr(upper.c_str(), "user.overlay.opaque", &value, 1) == 1) &&
         value == 'y';
}

const char* kind_of(const struct stat& status) {
  switch (status.st_mode & S_IFMT) {
    case S_IFREG:
      return "file";
    case S_IFLNK:
      return "link";
    case S_IFDIR:
      return "directory";
    default:
      return "other";
  }
}

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool same_content(const std::string& lower, const std::string& upper, const struct stat& status) {
  if (S_ISLNK(status.st_mode)) {
    std::error_code ignored;
    return fs::read_symlink(lower, ignored) == fs::read_symlink(upper, ignored);
  }
  return !S_ISREG(status.st_mode) || content_of(lower) == content_of(upper);
}

/// The walk through an upper layer beside its lower one.
class Comparison {
 public:
  Comparison(Image::Changes& changes, std::string lower, std::string upper, std::string point)
      : changes_(changes),
        lower_(std::move(lower)),
        upper_(std::move(upper)),
        point_(std::move(point)) {}

  void run() {
    directories_ = {{"", false}};
    while (!directories_.empty()) {
      const Directory directory = std::move(directories_.back());
      directories_.pop_back();
      compare_entries(directory.path, directory.hides || is_opaque(upper_ + directory.path));
    }
  }

 private:
  // Paths below start with "/", at the root of the layer.

  struct Directory {
    std::string path;
    bool hides;  ///< it is in one that hides what is below it
  };

  void compare_entries(const std::string& directory, bool hides) {
    const std::vector<std::string> above = names_in(upper_ + directory);
    for (const std::string& name : above) {
      compare(directory + "/" + name, hides);
    }
    if (!hides) {
      return;
    }
    for (const std::string& name : names_in(lower_ + directory)) {
      if (std::find(above.begin(), above.end(), name) == above.end()) {
        note_removal(directory + "/" + name);
      }
    }
  }

  void compare(const std::string& path, bool hidden) {
    struct stat before {};
    struct stat after {};
    const bool existed = lstat((lower_ + path).c_str(), &before) == 0;
    if (lstat((upper_ + path).c_str(), &after) != 0) {
      return;
    }
    if (is_whiteout(after) || (existed && S_ISDIR(before.st_mode) && !S_ISDIR(after.st_mode))) {
      note_removal(path);
    }
    if (is_whiteout(after)) {
      return;
    }
    if (!existed || before.st_mode != after.st_mode || before.st_uid != after.st_uid ||
        before.st_gid != after.st_gid || !same_content(lower_ + path, upper_ + path, before)) {
      changes_.written.push_back(point_ + path);
    }
    if (S_ISDIR(after.st_mode)) {
      directories_.push_back({path, hidden});
    }
  }

  void note_removal(const std::string& path) {
    std::vector<std::string> gone = {lower_ + path};
    if (!is_symlink(lower_ + path)) {
      const std::vector<std::string> below = paths_below(lower_ + path);
      gone.insert(gone.end(), below.begin(), below.end());
    }
    for (const std::string& lower : gone) {
      struct stat status {};
      if (lstat(lower.c_str(), &status) == 0) {
        changes_.removed.push_back({point_ + lower.substr(lower_.size()), kind_of(status)});
      }
    }
  }

  Image::Changes& changes_;
  std::string lower_;
  std::string upper_;
  std::string point_;
  std::vector<Directory> directories_;  ///< still to be compared
};

}  // namespace

void fail_to(const std::string& tried) {
  throw NotPossible("could not " + tried + ": " + std::strerror(errno));
}

void leave_namespaces() {
  if (unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNET) != 0) {
    fail_to("get namespaces of its own");
  }
  // In a chroot this fails, and mounts would show up outside of it.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    fail_to("keep its mounts to itself");
  }
  for (const Mount& mounted : read_mounts()) {
    if (holds_files(mounted)) {
      // What is hidden, or may not be changed in here, is as it was: its access times may move.
      mount(nullptr, mounted.point.c_str(), nullptr,
            MS_REMOUNT | MS_BIND | MS_NOATIME | mounted.flags, nullptr);
    }
  }
}

Image::Image() {
  std::vector<std::pair<Mount, int>> lowers;
  for (const Mount& mounted : read_mounts()) {
    const int descriptor =
        holds_files(mounted) ? open(mounted.point.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC) : -1;
    if (descriptor >= 0 && mount_of(descriptor) == mounted.id) {
      lowers.emplace_back(mounted, descriptor);
    }
  }
  const auto* const scratch =
      std::find_if(kScratchDirectories.begin(), kScratchDirectories.end(), [](const char* path) {
        return mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700") == 0;
      });
  if (scratch == kScratchDirectories.end()) {
    fail_to("mount a file system in memory");
  }
  root_ = std::string(*scratch) + "/root";
  fs::create_directory(root_);
  for (const auto& [mounted, descriptor] : lowers) {
    add_layer(mounted, descriptor);
  }
  make_devices();
  // Where it is not to be had, as in a container of its own, nothing that is called here misses it.
  static_cast<void>(bind_read_only("/sys", root_ + "/sys", MS_NOSUID | MS_NODEV | MS_NOEXEC));
  for (const char* const socket : kSockets) {
    if (path_exists(root_ + socket)) {
      bind(root_ + "/dev/full", root_ + socket);
    }
  }
}

Image::~Image() {
  for (const Layer& layer : layers_) {
    close(layer.lower);
  }
}

void Image::add_layer(const Mount& mounted, int lower) {
  const std::string target = root_ + mounted.point;
  const std::string directory =
      fs::path(root_).replace_filename("layer") / std::to_string(layers_.size());
  const std::string upper = directory + "/upper";
  struct stat status {};
  // A FUSE file system may deny root even this.
  if (fstat(lower, &status) == 0 && S_ISDIR(status.st_mode)) {
    fs::create_directories(upper);
    fs::create_directory(directory + "/work");
    copy_attributes(status, upper);
    // Numbers instead of names: whatever a mount point is called, it cannot break the options.
    const std::string options = "lowerdir=" + path_of(lower) + ",upperdir=" + upper +
                                ",workdir=" + directory + "/work" + attribute_option(upper);
    if (mount("overlay", target.c_str(), "overlay", mounted.flags | MS_NODEV, options.c_str()) ==
        0) {
      layers_.push_back({mounted.point == "/" ? "" : mounted.point, lower, upper});
      return;
    }
    if (mounted.point == "/") {
      fail_to("make the root file system the lower layer of an overlay");
    }
  }
  read_only_.push_back(mounted.point);
  // Where even that is not possible, as below an automounter's directory, the image lacks it.
  static_cast<void>(bind_read_only(path_of(lower), target, mounted.flags));
}

void Image::make_devices() const {
  const std::string devices = root_ + "/dev";
  mount_or_fail("devices", devices, "tmpfs", MS_NOSUID, "mode=0755");
  for (const char* const name : kDevices) {
    const std::string source = std::string("/dev/") + name;
    touch(devices + "/" + name);
    if (fs::is_character_file(source)) {
      bind(source, devices + "/" + name);
    }
  }
  // A shell's process substitution opens what is below "fd".
  fs::create_symlink("/proc/self/fd", devices + "/fd");
  fs::create_symlink("fd/0", devices + "/stdin");
  fs::create_symlink("fd/1", devices + "/stdout");
  fs::create_symlink("fd/2", devices + "/stderr");
  fs::create_directory(devices + "/shm");
  fs::create_directory(root_ + kToolDirectory);
}

void Image::enter() const {
  if (unshare(CLONE_NEWNS) != 0) {
    fail_to("get a mount namespace for the image");
  }
  // Read-only, as root could turn the kernel's settings there without any capability.
  mount_or_fail("proc", root_ + "/proc", "proc", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC);
  const std::string list = root_ + "/proc/modules";
  if (path_exists(list)) {  // a kernel that loads no modules has none
    bind(root_ + kToolDirectory + "/modules", list);
  }
  if (chdir(root_.c_str()) != 0) {
    fail_to("enter the image");
  }
  // The old root lands on top of the new one and is taken off again. The first root file system of
  // a host, which cannot be moved, stays below the image, out of reach.
  if (syscall(SYS_pivot_root, ".", ".") == 0) {
    umount2(".", MNT_DETACH);
  } else if (chroot(".") != 0) {
    fail_to("make the image the root directory");
  }
  if (chdir("/") != 0) {
    fail_to("enter the image");
  }
}

Image::Changes Image::changes() const {
  Changes changes;
  for (const Layer& layer : layers_) {
    Comparison(changes, path_of(layer.lower), layer.upper, layer.point).run();
  }
  std::sort(changes.removed.begin(), changes.removed.end(),
            [](const Removal& a, const Removal& b) { return a.path < b.path; });
  std::sort(changes.written.begin(), changes.written.end());
  return changes;
}

void Image::look_inside() const {
  if (mount("/proc", (root_ + "/proc").c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
      chroot(root_.c_str()) != 0 || chdir("/") != 0) {
    fail_to("look into the image");
  }
}

}  // namespace valta::inspect
