#include "remove/undo.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <vector>

#include "inspect/archive/archive.h"
#include "inspect/host/processes.h"
#include "log/log.h"
#include "remove/runs.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/regular_file.h"
#include "utils/search_path.h"
#include "utils/shell.h"
#include "utils/spawn.h"
#include "utils/text.h"
#include "utils/wording.h"

namespace valta::inspect::removal {
namespace fs = std::filesystem;

using States = std::map<std::string, std::string>;
namespace {

constexpr int kNothingDone = 2;

/// Whether two states are the same. What happens in a directory changes its time.
bool is_same(const std::string& one, const std::string& other) {
  return one == other || (is_of_directory(one) &&
                          one.substr(0, one.rfind(' ')) == other.substr(0, other.rfind(' ')));
}

/// The way back from one run.
class Undo {
 public:
  explicit Undo(const std::string& archive)
      : archive_(archive), record_(read_record(record_of(archive))), saved_(saved_states(record_)) {
    check_sum(archive, record_);
    // A run does not change the manifest, but somebody may have repaired it since.
    if (const std::string manifest = path_of_manifest();
        lexists(manifest) && saved_.erase(manifest) > 0) {
      kept_ = manifest;
    }
    if (const std::string left = beside(kLeft); lexists(left)) {
      left_ = saved_states(read_record(left));
    }
  }

  [[nodiscard]] std::string beside(const char* name) const {
    return fs::path(archive_).replace_filename(name);
  }

  /// Why nothing should be put back.
  [[nodiscard]] std::vector<std::string> objections() const {
    std::vector<std::string> objections;
    if (texts(record_, kMachine) != std::vector{machine_id()}) {
      objections.emplace_back("The archive is of another host, by its machine-id.");
    }
    if (!processes_called("valta-driver-uninstaller").empty()) {
      objections.emplace_back("The uninstaller is running.");
    }
    for (const auto& [path, state] : saved_) {
      if (!may_be_replaced(path, state)) {
        objections.push_back(escaped(path) + " has changed since the run.");
      }
    }
    return objections;
  }

  /// Puts back what can be. Returns what could not.
  std::vector<std::string> put_back() {
    try {
      extract(archive_, kept_);
    } catch (const ArchiveError& error) {
      troubles_.emplace_back(error.what());
    }
    delete_made();
    const bool has_systemd = is_directory("/run/systemd/system");
    const auto missing = [&](const char* name, const auto& is_there) {
      std::vector<std::string> names = texts(record_, name);
      std::erase_if(names, is_there);
      return names;
    };
    if (has_systemd && find_in_path_executable("systemctl")) {
      act({"systemctl", "daemon-reload"}, {""});
    }
    act({"systemctl", "enable"}, missing(kEnabled, is_enabled));
    act({"depmod"}, missing(kKernel, [](const std::string& kernel) {
          return !is_directory("/lib/modules/" + kernel);
        }));
    act({"modprobe"}, missing(kModule, is_loaded));
    act({"systemctl", "start"}, missing(kActive, is_active));
    compare();
    return troubles_;
  }

 private:
  /// Whether the content at `path` may be overwritten: it is what the run left or what was saved,
  /// or what an interrupted undo had written of it. Every run empties the log.
  [[nodiscard]] bool may_be_replaced(const std::string& path, const std::string& state) const {
    const std::string now = state_of(path);
    const auto left = left_.find(path);
    std::string content;
    return now.empty() || is_same(now, state) || path == kLogPath ||
           (left != left_.end() && left->second == now) ||
           (is_of_directory(now) && is_of_directory(state)) ||
           (read_regular_file(path, content) && content_in(archive_, path).starts_with(content));
  }

  /// Deletes what was not there before the run, unless it has changed.
  void delete_made() const {
    std::vector<std::string> made = texts(record_, kMade);
    std::reverse(made.begin(), made.end());
    for (const std::string& path : made) {
      const auto left = left_.find(path);
      std::error_code ignored;
      if (left != left_.end() && is_same(left->second, state_of(path))) {
        fs::remove(path, ignored);
      }
    }
  }

  /// Runs `command` for each of `names`, and says so.
  void act(const std::vector<std::string>& command, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      std::vector<std::string> line = command;
      if (!name.empty()) {
        line.push_back(name);
      }
      const std::string text = escaped(join(line, " "));
      std::printf("  %s\n", text.c_str());
      if (const int status = exit_status_of(line, Printing::silent); status != 0) {
        troubles_.push_back(text + " ended with status " + std::to_string(status) + ".");
      }
    }
  }

  /// Compares the host with what was saved.
  void compare() {
    for (const auto& [path, state] : saved_) {
      if (!is_same(state_of(path), state)) {
        troubles_.push_back(escaped(path) + " is not as it was.");
      }
    }
    const auto before = texts(record_, kDkms);
    if (const auto now = dkms_status(); now != before) {
      troubles_.push_back("dkms status shows \"" + escaped(join(now, "; ")) + "\", not \"" +
                          escaped(join(before, "; ")) + "\".");
    }
  }

  std::string archive_;
  Record record_;
  States saved_;
  States left_;
  std::string kept_;  ///< a path in the archive that is left alone; may be empty
  std::vector<std::string> troubles_;
};

void print(const char* title, const std::vector<std::string>& lines) {
  std::puts(title);
  for (const std::string& line : lines) {
    std::printf("  %s\n", line.c_str());
  }
}

}  // namespace

int undo(const std::string& file, bool force) {
  const Descriptor lock = lock_runs();
  Undo way_back(file);
  const std::vector<std::string> objections = way_back.objections();
  if (!objections.empty() && !force) {
    print("Nothing was put back, for these reasons (--force ignores them):", objections);
    return kNothingDone;
  }
  std::printf("Putting back %s:\n", file.c_str());
  const std::vector<std::string> troubles = way_back.put_back();
  if (lexists(way_back.beside(kOutput)) && !lexists(way_back.beside(kUndone))) {
    write_new_file(way_back.beside(kUndone), "");
  }
  troubles.empty()
      ? static_cast<void>(std::puts("Everything that was saved is as it was before the run."))
      : print("Not as it was before the run:", troubles);
  return troubles.empty() ? 0 : 1;
}

}  // namespace valta::inspect::removal
