#include "inspect/dry_run/overlay.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

#include "inspect/dry_run/namespaces.h"
#include "inspect/host/memory.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/paths.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

/// Directories where this process may mount the overlay. An overlay never contains the files below
/// the first one; the mount hides the files below the others from this process.
constexpr std::array<const char*, 4> kScratchDirectories = {"/dev/shm", "/tmp", "/run", "/mnt"};

constexpr std::array<const char*, 6> kDevices = {"null",   "zero",    "full",
                                                 "random", "urandom", "tty"};

/// Sockets that reach systemd and the bus without the stub of systemctl.
constexpr std::array<const char*, 3> kSockets = {"/run/systemd/private", "/run/systemd/notify",
                                                 "/run/dbus/system_bus_socket"};

/// File systems that take upper and lower case for the same: an overlay refuses them, with an error
/// in the kernel's log.
constexpr std::array<std::string_view, 6> kNoLowerLayers = {"exfat", "hfs",   "hfsplus",
                                                            "msdos", "ntfs3", "vfat"};

/// Makes the kernel copy renamed directories and changed attributes to the upper layer, whatever
/// its defaults are. Older kernels have only one of these options, or none.
constexpr std::array<const char*, 3> kLayerOptions = {",redirect_dir=off,metacopy=off",
                                                      ",redirect_dir=off", ""};

/// The share of the available memory that a dry run may use.
constexpr std::uint64_t kShareOfMemory = 2;

void mount_or_fail(const std::string& source, const std::string& target, const char* type,
                   unsigned long flags, const std::string& options = "") {
  if (mount(source.c_str(), target.c_str(), type, flags, options.c_str()) != 0) {
    fail_to("mount " + std::string(type == nullptr ? source.c_str() : type) + " on " + target);
  }
}

/// Mounts `source`, a file or a directory, on `target` once more, with `flags`. Returns whether
/// that was possible.
// Under the name "bind" a call with two strings would find std::bind, which mounts nothing.
bool bind_mount(const std::string& source, const std::string& target, unsigned long flags) {
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    return false;
  }
  if (mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | flags, nullptr) != 0) {
    umount2(target.c_str(), MNT_DETACH);
    return false;
  }
  return true;
}

void bind_or_fail(const std::string& source, const std::string& target, unsigned long flags) {
  if (!bind_mount(source, target, flags)) {
    fail_to("mount " + source + " on " + target);
  }
}

std::string path_of(const Descriptor& descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor.get());
}

void touch(const std::string& path) { std::ofstream(path).close(); }

/// The root of a merged file system looks like that of its upper layer.
void copy_attributes(const struct stat& from, const std::string& to) {
  const std::array<timespec, 2> times = {from.st_atim, from.st_mtim};
  if (chown(to.c_str(), from.st_uid, from.st_gid) != 0 || chmod(to.c_str(), from.st_mode) != 0 ||
      utimensat(AT_FDCWD, to.c_str(), times.data(), 0) != 0) {
    fail_to("copy the attributes of the lower layer to " + to);
  }
}

/// Only the first user namespace may set the attributes that an overlay uses by default.
std::string attribute_option(const std::string& upper) {
  return setxattr(upper.c_str(), "trusted.valta", "", 0, 0) == 0 ? "" : ",userxattr";
}

bool mount_overlay(const std::string& lower, const std::string& directory) {
  const std::string upper = directory + "/upper";
  // Numbers instead of names: whatever a mount point is called, it cannot break the options.
  const std::string options = "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + directory +
                              "/work" + attribute_option(upper);
  return std::any_of(kLayerOptions.begin(), kLayerOptions.end(), [&](const char* more) {
    return mount("overlay", (directory + "/merged").c_str(), "overlay", MS_NODEV,
                 (options + more).c_str()) == 0;
  });
}

std::string mount_scratch() {
  const std::uint64_t bytes = available_memory() / kShareOfMemory;
  const std::string options = "mode=0700" + (bytes == 0 ? "" : ",size=" + std::to_string(bytes));
  for (const char* const directory : kScratchDirectories) {
    if (mount("tmpfs", directory, "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0) {
      return directory;
    }
  }
  fail_to("mount a file system in memory");
}

/// `path` without the front part `directory`, which it is below.
std::string below(const std::string& path, const std::string& directory) {
  return directory == "/" ? (path == "/" ? "" : path) : path.substr(directory.size());
}

/// Adds to `all` the `changes` in a layer that are visible at `mounted`, where the layer's
/// directory `front` is mounted.
void add_shown(const Changes& changes, const Mount& mounted, const std::string& front,
               const MountTree& tree, Changes& all) {
  const std::string point = mounted.point == "/" ? "" : mounted.point;
  /// The path that shows the file of the layer here; empty for none.
  const auto shown = [&](const std::string& path) -> std::string {
    if (!path.starts_with(front + "/")) {
      return "";
    }
    std::string here = point + path.substr(front.size());
    const Mount* const on_top = tree.showing(here);
    return on_top != nullptr && on_top->id == mounted.id ? here : "";
  };
  for (const Removal& removal : changes.removed) {
    if (std::string path = shown(removal.path); !path.empty()) {
      all.removed.push_back({std::move(path), removal.kind});
    }
  }
  for (const std::string& written : changes.written) {
    if (std::string path = shown(written); !path.empty()) {
      all.written.push_back(std::move(path));
    }
  }
}

}  // namespace

Overlay::Overlay() : host_(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)), mounts_(read_mounts()) {
  places_ = open_places();
  scratch_ = mount_scratch();
  root_ = scratch_ + "/root";
  fs::create_directory(root_);
  touch(aside("cover"));

  // The mount that shows most of a file system comes first. Its layer serves the other mounts, too.
  std::vector<Place*> by_root;
  for (Place& place : places_) {
    by_root.push_back(&place);
  }
  std::stable_sort(by_root.begin(), by_root.end(), [](const Place* a, const Place* b) {
    return a->mount.root.size() < b->mount.root.size();
  });
  for (Place* const place : by_root) {
    choose_layer(*place);
  }
  for (const Place& place : places_) {
    mount_place(place);
  }
  make_devices();
  unlike_host_.emplace_back("/dev");
  // A container may not allow it. The tools that a run calls do not need it.
  static_cast<void>(
      bind_mount("/sys", root_ + "/sys", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC));
  cover_sockets();
}

/// Opens the mounts that hold files and can be seen.
std::vector<Overlay::Place> Overlay::open_places() {
  const MountTree tree(mounts_);
  std::vector<Place> places;
  for (const Mount& mounted : mounts_) {
    if (!holds_files(mounted) || !tree.shows(mounted)) {
      continue;
    }
    Descriptor directory(open(mounted.point.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (directory.is_open()) {
      places.push_back({mounted, std::move(directory), {}});
    } else {
      unlike_host_.push_back(mounted.point);
    }
  }
  std::stable_sort(places.begin(), places.end(),
                   [](const Place& a, const Place& b) { return a.mount.point < b.mount.point; });
  return places;
}

void Overlay::choose_layer(Place& place) {
  const Mount& mounted = place.mount;
  for (std::size_t number = 0; number < layers_.size(); ++number) {
    const Layer& layer = layers_[number];
    if (layer.device == mounted.device && is_below(mounted.root, layer.root)) {
      place.layer = number;
      return;
    }
  }
  if (std::find(kNoLowerLayers.begin(), kNoLowerLayers.end(), mounted.type) ==
          kNoLowerLayers.end() &&
      make_layer(place)) {
    place.layer = layers_.size() - 1;
  } else if (mounted.point == "/") {
    fail_to("make the root file system the lower layer of an overlay");
  }
}

bool Overlay::make_layer(Place& place) {
  struct stat status {};
  // A FUSE file system may deny root even this.
  if (fstat(place.directory.get(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return false;
  }
  Layer layer{place.mount.device, place.mount.root, Descriptor(),
              aside("layer") + "/" + std::to_string(layers_.size())};
  for (const char* const name : {"/upper", "/work", "/merged"}) {
    fs::create_directories(layer.directory + name);
  }
  copy_attributes(status, layer.directory + "/upper");
  if (!mount_overlay(path_of(place.directory), layer.directory)) {
    return false;
  }
  layer.lower = std::move(place.directory);
  layers_.push_back(std::move(layer));
  return true;
}

void Overlay::mount_place(const Place& place) {
  const std::string target = root_ + (place.mount.point == "/" ? "" : place.mount.point);
  const unsigned long flags = place.mount.flags | MS_NODEV;
  if (place.layer) {
    const Layer& layer = layers_[*place.layer];
    const std::string source = layer.directory + "/merged" + below(place.mount.root, layer.root);
    if (bind_mount(source, target, flags)) {
      return;
    }
  }
  unlike_host_.push_back(place.mount.point);
  struct stat status {};
  // Anything else, such as a socket, would lead to the host. If the mount point does not exist,
  // such as below an automounter's directory, the overlay does not have the mount.
  if (fstat(place.directory.get(), &status) == 0 &&
      (S_ISDIR(status.st_mode) || S_ISREG(status.st_mode))) {
    static_cast<void>(bind_mount(path_of(place.directory), target, flags | MS_RDONLY));
  }
}

void Overlay::make_devices() const {
  const std::string devices = aside("dev");
  fs::create_directory(devices);
  for (const char* const name : kDevices) {
    const std::string source = std::string("/dev/") + name;
    const std::string target = devices + "/" + name;
    touch(target);
    if (fs::is_character_file(source)) {
      // A process can still write to the device, but cannot change its owner, mode and times.
      bind_or_fail(source, target, MS_RDONLY | MS_NOSUID | MS_NOEXEC);
    }
  }
  // A shell's process substitution opens files below "fd".
  fs::create_symlink("/proc/self/fd", devices + "/fd");
  fs::create_symlink("fd/0", devices + "/stdin");
  fs::create_symlink("fd/1", devices + "/stdout");
  fs::create_symlink("fd/2", devices + "/stderr");
  fs::create_directory(devices + "/shm");
  mount_or_fail(devices, root_ + "/dev", nullptr, MS_BIND | MS_REC);
  fs::create_directory(root_ + kToolDirectory);
}

void Overlay::cover_sockets() const {
  for (const char* const socket : kSockets) {
    if (path_exists(root_ + socket)) {
      bind_or_fail(aside("cover"), root_ + socket, MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC);
    }
  }
}

void Overlay::enter() const {
  if (unshare(CLONE_NEWNS) != 0) {
    fail_to("create a mount namespace for the overlay");
  }
  // Read-only, because root can change kernel settings there without any capability.
  mount_or_fail("proc", root_ + "/proc", "proc", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC);
  const std::string list = root_ + "/proc/modules";
  if (path_exists(list)) {  // a kernel that loads no modules has none
    mount_or_fail(root_ + kToolDirectory + "/modules", list, nullptr, MS_BIND);
  }
  if (chdir(scratch_.c_str()) != 0) {
    fail_to("enter the overlay");
  }
  // pivot_root puts the old root on top of the new one, so it is unmounted here. The first root
  // file system of a host cannot be moved. It is left below the overlay, out of reach.
  if (syscall(SYS_pivot_root, ".", ".") == 0) {
    umount2(".", MNT_DETACH);
  }
  // In a directory that is not the root of its mount namespace, the kernel makes no user
  // namespaces, in which a process could mount again.
  if (chroot("root") != 0 || chdir("/") != 0) {
    fail_to("make the overlay the root directory");
  }
}

bool Overlay::is_full() const {
  struct statvfs room {};
  return statvfs(scratch_.c_str(), &room) == 0 && (room.f_bavail == 0 || room.f_favail == 0);
}

Overlay::WrittenFile Overlay::largest_file() const {
  constexpr std::string_view upper = "/upper/";
  WrittenFile largest;
  for (const std::string& path : paths_below(aside("layer"))) {
    struct stat status {};
    const auto in_layer = path.find(upper);
    if (in_layer != std::string::npos && lstat(path.c_str(), &status) == 0 &&
        S_ISREG(status.st_mode) && static_cast<std::uintmax_t>(status.st_size) > largest.size) {
      largest = {path.substr(in_layer + upper.size() - 1),
                 static_cast<std::uintmax_t>(status.st_size)};
    }
  }
  return largest;
}

Changes Overlay::changes() const {
  const MountTree tree(mounts_);
  Changes all;
  for (std::size_t number = 0; number < layers_.size(); ++number) {
    const Layer& layer = layers_[number];
    const Changes in_layer = compare_layers(path_of(layer.lower), layer.directory + "/upper");
    for (const Place& place : places_) {
      if (place.layer == number) {
        add_shown(in_layer, place.mount, below(place.mount.root, layer.root), tree, all);
      }
    }
  }
  std::sort(all.removed.begin(), all.removed.end(),
            [](const Removal& a, const Removal& b) { return a.path < b.path; });
  std::sort(all.written.begin(), all.written.end());
  return all;
}

void Overlay::look_inside() const {
  // It fails harmlessly if it is mounted already.
  static_cast<void>(mount("/proc", (root_ + "/proc").c_str(), nullptr, MS_BIND | MS_REC, nullptr));
  if (chroot(root_.c_str()) != 0 || chdir("/") != 0) {
    fail_to("enter the overlay");
  }
}

void Overlay::look_outside() const {
  if (fchdir(host_.get()) != 0 || chroot(".") != 0) {
    fail_to("return to the host");
  }
}

}  // namespace valta::inspect
