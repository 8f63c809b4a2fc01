#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "inspect/host/mounts.h"
#include "inspect/report/report.h"

namespace valta::inspect {

/// Says what was tried and what the host answered.
class NotPossible : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws `NotPossible`: `tried`, and what errno means.
[[noreturn]] void fail_to(const std::string& tried);

/// Puts this process into namespaces of its own for mounts, IPC, host name and network. Mounts made
/// from now on are seen by nobody else, and the files of the host are read without touching their
/// access times. Throws `NotPossible` when the kernel denies that.
void leave_namespaces();

/// A copy-on-write image of this host: every file system with files is the lower layer of an
/// overlay whose upper layer is in memory. Needs `leave_namespaces`; with the last process in these
/// namespaces all of it is gone, however that process ends.
///
/// /dev is a minimal one, the image's own, and holds `kToolDirectory`; /sys is read-only; the
/// sockets of systemd and of the bus are covered.
class Image {
 public:
  /// The place in the image for what stands in for the host's tools.
  static constexpr const char* kToolDirectory = "/dev/valta-driver-inspect";

  /// What a run changed.
  struct Changes {
    std::vector<Removal> removed;      ///< what was in a removed directory, too
    std::vector<std::string> written;  ///< new, or with another content, mode or owner
  };

  /// Throws `NotPossible`, above all where the root file system cannot be a lower layer.
  Image();
  ~Image();
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  /// Where this process sees the root directory of the image.
  [[nodiscard]] const std::string& root() const { return root_; }

  /// The mount points that cannot be lower layers. In the image they are read-only, or missing.
  [[nodiscard]] const std::vector<std::string>& read_only() const { return read_only_; }

  /// Makes the image the root directory of this process, the first one of a new PID namespace, with
  /// a read-only procfs whose list of modules is the plain file `modules` of `kToolDirectory`.
  void enter() const;

  /// What has been changed in the image so far, sorted.
  [[nodiscard]] Changes changes() const;

  /// From now on this process sees the files of the image in the place of the host's, but for
  /// /proc.
  void look_inside() const;

 private:
  struct Layer {
    std::string point;  ///< on the host; empty for the root
    int lower;          ///< the directory on the host
    std::string upper;
  };

  void add_layer(const Mount& mount, int lower);
  void make_devices() const;

  std::string root_;
  std::vector<Layer> layers_;
  std::vector<std::string> read_only_;
};

}  // namespace valta::inspect
