#include "inspect/archive/archive.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <optional>
#include <set>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "inspect/host/installation.h"
#include "inspect/host/modules.h"
#include "inspect/report/json.h"
#include "uninstall/manifest.h"
#include "utils/descriptor.h"
#include "utils/listing.h"
#include "utils/regular_file.h"
#include "utils/shell.h"
#include "utils/spawn.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

[[noreturn]] void fail(const std::string& tried) {
  throw ArchiveError("cannot " + tried + ": " + std::strerror(errno));
}

/// A file that gets its name when it is complete. Until then it has none, so nothing is left if
/// this process ends. On a file system that cannot do that, such as NFS, it has another name.
class NewFile {
 public:
  explicit NewFile(const std::string& path)
      : place_(fs::absolute(path)),
        file_(open(place_.parent_path().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)) {
    if (!file_.is_open()) {
      name_ = place_.native() + ".XXXXXX";
      file_ = Descriptor(mkostemp(name_.data(), O_CLOEXEC));
    }
    if (!file_.is_open()) {
      fail("create " + place_.native());
    }
  }
  ~NewFile() { unlink(name_.c_str()); }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  [[nodiscard]] const Descriptor& descriptor() const { return file_; }
  [[nodiscard]] std::string path_so_far() const {
    return "/proc/self/fd/" + std::to_string(file_.get());
  }

  /// Replaces nothing.
  void publish() const {
    const std::string from = name_.empty() ? path_so_far() : name_;
    if (fsync(file_.get()) != 0 ||
        linkat(AT_FDCWD, from.c_str(), AT_FDCWD, place_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
      fail("create " + place_.native());
    }
    const Descriptor directory(open(place_.parent_path().c_str(), O_RDONLY | O_CLOEXEC));
    fsync(directory.get());
  }

 private:
  fs::path place_;
  Descriptor file_;
  std::string name_;
};

void write_all(const Descriptor& file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(file.get(), text.data(), text.size());
    if (count < 0) {
      fail("write");
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

/// Names in an archive begin with "./": tar takes those that begin with "-" for options.
std::string member(const std::string& path) { return "." + path; }

/// Runs tar in the root directory, and returns its complaints.
std::string tar(std::vector<std::string> command, const Descriptor& input, int output) {
  command.insert(command.begin(), {"tar", "-C", "/", "-f", "-", "--numeric-owner", "--xattrs",
                                   "--xattrs-include=*", "--acls", "--selinux"});
  std::string complaint;
  if (run_between(command, input.get(), output, complaint) != 0) {
    throw ArchiveError(escaped(complaint.substr(0, complaint.find('\n'))));
  }
  return complaint;
}

std::string sum_of(const std::string& file) {
  std::string sum;
  if (!output_of({"sha256sum"}, file, sum)) {
    throw ArchiveError("sha256sum failed for " + file);
  }
  return sum.substr(0, sum.find(' '));
}

/// The kernel whose modules `path` is among.
std::optional<std::string> kernel_of(std::string_view path) {
  constexpr std::string_view directory = "/lib/modules/";
  path.remove_prefix(path.starts_with("/usr/") ? std::strlen("/usr") : 0);
  return path.starts_with(directory)
             ? std::optional(split(path.substr(directory.size()), '/').front())
             : std::nullopt;
}

/// Whether depmod makes the file at `path`.
bool is_of_depmod(const fs::path& path) {
  return kernel_of(path.native()) == path.parent_path().filename() &&
         path.filename().native().starts_with("modules.");
}

/// The state of this host, and what the run of `report` changes of it.
Record describe(const Report& report) {
  Record record = {
      {kMachine, {machine_id()}}, {kReport, {json_of(report)}}, {kDkms, dkms_status()}};
  std::vector<std::string> changed = report.written;
  std::transform(report.removed.begin(), report.removed.end(), std::back_inserter(changed),
                 [](const Removal& removal) { return removal.path; });
  std::sort(changed.begin(), changed.end());
  std::set<std::string> kernels;
  for (const std::string& path : changed) {
    const auto kernel = kernel_of(path);
    kernels.insert(kernel.value_or(""));
    if (!kernel || !is_of_depmod(path)) {
      const std::string state = state_of(path);
      record[state.empty() ? kMade : kSaved].push_back(state.empty() ? path
                                                                     : field_for(path, state));
    }
  }
  if (const std::string path = path_of_manifest(); record.contains(kSaved) && lexists(path)) {
    // A run keeps it. Somebody may delete it afterwards, but what is restored needs it again.
    record[kSaved].push_back(field_for(path, state_of(path)));
  }
  kernels.erase("");
  record[kKernel] = {kernels.begin(), kernels.end()};
  const auto keep_if = [&](const char* name, const std::vector<std::string>& all,
                           const auto& is_so) {
    std::copy_if(all.begin(), all.end(), std::back_inserter(record[name]), is_so);
  };
  keep_if(kModule, stack_modules(), is_loaded);
  const std::vector<std::string> units = read_installation().units;
  keep_if(kEnabled, units, is_enabled);
  keep_if(kActive, units, is_active);
  return record;
}

/// Throws `ArchiveError` if the paths of `states` do not fit beside the file `archive`: a full
/// disk, even for a moment, harms other programs.
void check_room(const std::map<std::string, std::string>& states, const Descriptor& archive) {
  constexpr std::uintmax_t size_of_headers = 4096;
  std::uintmax_t needed = 0;
  for (const auto& [path, state] : states) {
    needed += size_of_headers + (is_of_file(state) ? fs::file_size(path) : 0);
  }
  struct statvfs room {};
  if (fstatvfs(archive.get(), &room) == 0 && needed > room.f_bavail * room.f_frsize) {
    errno = ENOSPC;
    fail("save " + std::to_string(needed >> 10U) + " KB");
  }
}

}  // namespace

std::string path_of_manifest() {
  const fs::path path = kUninstallManifestPath;
  std::error_code ignored;
  return fs::weakly_canonical(path.parent_path(), ignored) / path.filename();
}

bool can_save() {
  std::string help;
  return output_of({"tar", "--help"}, "/dev/null", help) &&
         help.find("--xattrs-include") != std::string::npos &&
         help.find("--acls") != std::string::npos;
}

Record save(const std::string& file, const Report& report) {
  if (!can_save()) {
    throw ArchiveError("this host has no tar that keeps extended attributes and ACLs");
  }
  Record record = describe(report);
  const auto states = saved_states(record);
  if (states.empty() || (report.removed.empty() && report.unloaded.empty())) {
    throw ArchiveError(report.outcome == Outcome::unknown ? "the run cannot be predicted"
                                                          : "a run would remove nothing");
  }
  {
    const NewFile archive(file);
    check_room(states, archive.descriptor());
    const Descriptor names(memfd_create("names", MFD_CLOEXEC));
    for (const auto& [path, state] : states) {
      write_all(names, member(path) + '\0');
    }
    lseek(names.get(), 0, SEEK_SET);
    record[kLoss] = split(tar({"-c", "--format=posix", "--null", "--no-recursion", "-T", "-"},
                              names, archive.descriptor().get()),
                          '\n');
    for (const auto& [path, state] : states) {
      if (state_of(path) != state) {
        throw ArchiveError(escaped(path) + " changed while it was saved");
      }
    }
    record[kSum] = {sum_of(archive.path_so_far())};
    archive.publish();
  }
  try {
    write_new_file(record_of(file), format_record(record));
  } catch (const ArchiveError&) {
    unlink(file.c_str());
    throw;
  }
  return record;
}

void check_sum(const std::string& file, const Record& record) {
  if (std::vector{sum_of(file)} != texts(record, kSum)) {
    throw ArchiveError("the checksum of " + file +
                       " is wrong: it was changed after it was written");
  }
}

std::string content_in(const std::string& file, const std::string& path) {
  std::string content;
  static_cast<void>(output_of({"tar", "-xOf", file, member(path)}, "/dev/null", content));
  return content;
}

void extract(const std::string& file, const std::string& kept) {
  const Descriptor archive(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<std::string> command = {"-x", "-p"};
  if (!kept.empty()) {
    command.insert(command.end(), {"--anchored", "--no-wildcards", "--exclude=" + member(kept)});
  }
  static_cast<void>(tar(command, archive, STDERR_FILENO));
}

void write_new_file(const std::string& path, const std::string& text) {
  const NewFile file(path);
  write_all(file.descriptor(), text);
  file.publish();
}

}  // namespace valta::inspect
