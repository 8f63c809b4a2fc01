#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "inspect/dry_run/changes.h"
#include "inspect/host/mounts.h"
#include "utils/descriptor.h"

namespace valta::inspect {

/// A copy-on-write overlay of this host: every file system with files is the lower layer of an
/// overlay whose upper layer is in memory. Call `leave_namespaces` first: the overlay exists as
/// long as a process in these namespaces.
///
/// A file system that is mounted in several places has one layer, and shows each change in all of
/// them. /dev is a minimal one of its own, and holds `kToolDirectory`; /sys is read-only; the
/// sockets of systemd and of the bus are covered.
class Overlay {
 public:
  /// The place in the overlay for the stubs of the host's tools.
  static constexpr const char* kToolDirectory = "/dev/valta-driver-inspect";

  /// Throws `NotPossible`, above all where the root file system cannot be a lower layer, and
  /// std::filesystem::filesystem_error when memory is full.
  Overlay();

  /// Where this process sees the root directory of the overlay.
  [[nodiscard]] const std::string& root() const { return root_; }

  /// A path for a file of the name `name` in the memory of the overlay, out of its sight.
  [[nodiscard]] std::string aside(const std::string& name) const { return scratch_ + "/" + name; }

  /// The directories and mount points where the overlay differs from the host: they are read-only
  /// or empty.
  [[nodiscard]] const std::vector<std::string>& unlike_host() const { return unlike_host_; }

  /// Makes the overlay the root directory of this process, the first one of a new PID namespace,
  /// with a read-only procfs whose list of modules is the plain file `modules` of `kToolDirectory`.
  /// Nobody there can make a user namespace. Throws `NotPossible`.
  void enter() const;

  /// Whether no memory is left for it.
  [[nodiscard]] bool is_full() const;

  struct WrittenFile {
    std::string path;  ///< in its file system
    std::uintmax_t size = 0;
  };

  /// The largest file that has been written so far.
  [[nodiscard]] WrittenFile largest_file() const;

  /// All changes so far, sorted.
  [[nodiscard]] Changes changes() const;

  /// From now on this process sees the files of the overlay instead of the host's, except /proc.
  /// Throws `NotPossible`.
  void look_inside() const;

  /// From now on this process sees the files of the host again. Throws `NotPossible`.
  void look_outside() const;

 private:
  /// An overlay file system, and the mount of the host that is its lower layer.
  struct Layer {
    std::string device;
    std::string root;  ///< the path in the file system that it shows
    Descriptor lower;
    std::string directory;  ///< with its upper layer, and where it is mounted
  };

  /// A mount of the host, and the layer that has its files in the overlay.
  struct Place {
    Mount mount;
    Descriptor directory;  ///< none of a place that is the lower layer of `layer`
    std::optional<std::size_t> layer;
  };

  std::vector<Place> open_places();
  void choose_layer(Place& place);
  bool make_layer(Place& place);
  void mount_place(const Place& place);
  void make_devices() const;
  void cover_sockets() const;

  Descriptor host_;  ///< the root directory of the host
  std::string scratch_;
  std::string root_;
  std::vector<Mount> mounts_;
  std::vector<Layer> layers_;
  std::vector<Place> places_;  ///< parents before the mounts on them
  std::vector<std::string> unlike_host_;
};

}  // namespace valta::inspect
