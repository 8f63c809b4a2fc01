#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <vector>

#include "installer/kernel_module.h"
#include "uninstall/result_code.h"

namespace valta {

// How a failed expectation shows them.
void PrintTo(ResultCode code, std::ostream* stream);
void PrintTo(ModuleStatus status, std::ostream* stream);

/// How the uninstaller is run on a throwaway host.
struct Circumstances {
  std::string variable = "LANG=C";  ///< its environment, beside PATH
  std::string options;              ///< of the script that enters the host
  std::string fault;                ///< runs a copy that has this fault, one of faults.cpp
  std::string streams = R"(>"$OUTPUT" 2>"$CONSOLE")";  ///< what the shell does with them
};

/// What one run of the uninstaller left behind.
struct Outcome {
  int status;           ///< exit status; 128 + N when signal N ended it
  std::string output;   ///< standard output
  std::string console;  ///< standard error
  std::string trace;    ///< the command lines it ran
  std::string log;
};

/// What one call of valta-driver-inspect came to.
struct Inspection {
  int status;
  nlohmann::json report;  ///< null when it printed none
  std::string page;       ///< all that it printed
};

/// Whether this machine lets throwaway hosts have mounts. Where scripts/test has found that it
/// does, a mount that fails is a fault.
[[nodiscard]] bool machine_allows_mounts();

/// The root of a throwaway host in a scratch directory, with the machine's own shell, md5sum and
/// rm, scripted tools and nothing installed. Where it cannot be laid out or entered, the test
/// fails; where the machine denies chroot, the test is skipped. The umask of the test becomes 022.
class ThrowawayHost {
 public:
  /// With the machine's `tools` besides, words with spaces between them.
  explicit ThrowawayHost(const std::string& tools = "");
  ~ThrowawayHost();
  ThrowawayHost(const ThrowawayHost&) = delete;
  ThrowawayHost& operator=(const ThrowawayHost&) = delete;

  /// Puts the complete sample installation on it, with its modules loaded.
  void install_sample();
  void manifest(const std::vector<std::string>& lines);
  void load_module(const std::string& name);
  /// Runs `commands` with the host's own shell, untraced. Besides mkdir, ln, mkfifo, rm and sed
  /// there are `file PATH [CONTENT]` and `tool PATH SCRIPT`, which replaces a tool, to call.
  void sh(const std::string& commands);

  /// Where the machine has `path` of the host.
  [[nodiscard]] std::string outside(const std::string& path) const { return root_ + path; }
  [[nodiscard]] std::string read(const std::string& path) const;
  [[nodiscard]] bool has(const std::string& path) const;
  /// Files, links and empty directories, a line each, but for the tools and records of the host.
  [[nodiscard]] std::string files() const;

  /// Every path with mode, owners, size, times and inode. The time of access is left out for what
  /// the start of a program reads, and everywhere for a normal user whose mounts record it.
  [[nodiscard]] std::map<std::string, std::string> listing() const;

  Outcome run(const Circumstances& circumstances = {});
  /// Puts the program of probe.cpp at /probe.
  void put_probe();
  /// From now on the programs are copies that find the host's module list wherever they run, as
  /// `inspect` needs them.
  void put_faulty_programs();
  /// Runs valta-driver-inspect with `arguments` and `form`, and with the search path `path`. Its
  /// caller ignores children and has a file open. `options` are for the script that enters the
  /// host.
  Inspection inspect(const std::string& arguments, const std::string& path = "/usr/bin:/bin",
                     const std::string& form = "--json", const std::string& options = "");
  /// Follows what it prints before and after a run, by tests/host/follow-page. `part` has the
  /// host's part in this. Returns all that was read and typed.
  std::string follow(const std::map<std::string, std::string>& part, bool heeds);
  /// Starts it with `verb` and returns its process.
  pid_t start_inspecting(const std::string& verb);
  /// Whether a process that `start_inspecting` brought about is still there.
  [[nodiscard]] bool is_inhabited() const;
  /// Runs `body`, with its expectations, in a child process on this host. Its log is /log.
  void call(const std::function<void()>& body);

 private:
  std::string scratch_;
  std::string root_;
};

/// What the sample installation comes to: the "log", the "trace", the files that are "left", or the
/// pages of valta-driver-inspect, "before" and "after".
[[nodiscard]] std::string expected_of_sample(const std::string& what);

/// Expects `text` to be `expected_of_sample`, or, for scripts/renew-sample, makes it so.
void expect_of_sample(const std::string& what, const std::string& text);

inline const std::string kLog = "/var/log/zephanorvalta/driver_uninstaller.log";

/// The digest of an empty file.
inline const std::string kEmpty = "d41d8cd98f00b204e9800998ecf8427e";

}  // namespace valta
