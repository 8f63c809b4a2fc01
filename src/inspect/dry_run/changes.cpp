#include "inspect/dry_run/changes.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

#include "utils/descriptor.h"
#include "utils/files.h"
#include "utils/listing.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

constexpr std::size_t kBlock = 65536;

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

FileKind kind_of(const struct stat& status) {
  switch (status.st_mode & S_IFMT) {
    case S_IFREG:
      return FileKind::file;
    case S_IFLNK:
      return FileKind::link;
    case S_IFDIR:
      return FileKind::directory;
    default:
      return FileKind::other;
  }
}

std::size_t read_block(const Descriptor& file, std::array<char, kBlock>& block) {
  std::size_t filled = 0;
  ssize_t count = 0;
  while (filled < block.size() &&
         (count = read(file.get(), block.data() + filled, block.size() - filled)) > 0) {
    filled += static_cast<std::size_t>(count);
  }
  return filled;
}

/// Compares two regular files of the same size.
bool same_bytes(const std::string& lower, const std::string& upper) {
  const Descriptor one(open(lower.c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor other(open(upper.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, kBlock> block{};
  std::array<char, kBlock> other_block{};
  std::size_t size = 0;
  do {
    size = read_block(one, block);
    if (read_block(other, other_block) != size ||
        !std::equal(block.begin(), block.begin() + size, other_block.begin())) {
      return false;
    }
  } while (size > 0);
  return true;
}

bool same_content(const std::string& lower, const struct stat& before, const std::string& upper,
                  const struct stat& after) {
  if (S_ISLNK(before.st_mode)) {
    std::error_code ignored;
    return fs::read_symlink(lower, ignored) == fs::read_symlink(upper, ignored);
  }
  return !S_ISREG(before.st_mode) || (before.st_size == after.st_size && same_bytes(lower, upper));
}

/// The walk through an upper layer beside its lower one.
class Comparison {
 public:
  Comparison(std::string lower, std::string upper)
      : lower_(std::move(lower)), upper_(std::move(upper)) {}

  Changes run() {
    directories_ = {{"", false}};
    while (!directories_.empty()) {
      const Directory directory = std::move(directories_.back());
      directories_.pop_back();
      compare_entries(directory.path, directory.hides || is_opaque(upper_ + directory.path));
    }
    return std::move(changes_);
  }

 private:
  // Paths below start with "/", at the root of the layer.

  struct Directory {
    std::string path;
    bool hides;  ///< it is in one that hides its lower layer
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
      if (!std::binary_search(above.begin(), above.end(), name)) {
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
        before.st_gid != after.st_gid ||
        !same_content(lower_ + path, before, upper_ + path, after)) {
      changes_.written.push_back(path);
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
        changes_.removed.push_back({lower.substr(lower_.size()), kind_of(status)});
      }
    }
  }

  Changes changes_;
  std::string lower_;
  std::string upper_;
  std::vector<Directory> directories_;  ///< still to be compared
};

}  // namespace

Changes compare_layers(const std::string& lower, const std::string& upper) {
  return Comparison(lower, upper).run();
}

}  // namespace valta::inspect
