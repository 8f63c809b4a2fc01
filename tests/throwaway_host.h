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

// For the messages of failed expectations.
void PrintTo(ResultCode code, std::ostream* stream);
void PrintTo(ModuleStatus status, std::ostream* stream);

/// How to run the uninstaller on a throwaway host.
struct Circumstances {
  std::string variable = "LANG=C";  ///< its environment, beside PATH
  std::string options;              ///< of the script that enters the host
  std::string fault;                ///< runs a copy that has this fault, one of faults.cpp
  std::string streams = R"(>"$OUTPUT" 2>"$CONSOLE")";  ///< what the shell does with them
};

/// The results of one run of the uninstaller.
struct Outcome {
  int status;           ///< exit status; 128 + N when signal N ended it
  std::string output;   ///< standard output
  std::string console;  ///< standard error
  std::string trace;    ///< the command lines it ran
  std::string log;
};

/// The results of one call of valta-driver-inspect.
struct Inspection {
  int status;
  nlohmann::json report;  ///< null when it printed none
  std::string page;       ///< all that it printed
};

/// Whether throwaway hosts can have mounts on this machine. If scripts/test has found that they
/// can, a mount that fails is an error.
[[nodiscard]] bool machine_allows_mounts();

/// The root of a throwaway host in a scratch directory, with the machine's own shell, md5sum and
/// rm, scripted tools and nothing installed. Where it cannot be laid out or entered, the test
/// fails; where the machine denies chroot, the test is skipped. The umask of the test becomes 022.
class ThrowawayHost {
 public:
  /// Adds the machine's `tools`, separated by spaces.
  explicit ThrowawayHost(const std::string& tools = "");
  ~ThrowawayHost();
  ThrowawayHost(const ThrowawayHost&) = delete;
  ThrowawayHost& operator=(const ThrowawayHost&) = delete;

  /// Puts the complete sample installation on it, with its modules loaded.
  void install_sample();
  void manifest(const std::vector<std::string>& lines);
  void load_module(const std::string& name);
  /// Runs `commands` with the host's own shell, untraced. Besides mkdir, ln, mkfifo, rm and sed
  /// they can use `file PATH [CONTENT]` and `tool PATH SCRIPT`, which replaces a tool.
  void sh(const std::string& commands);

  /// The path on this machine of `path` on the host.
  [[nodiscard]] std::string outside(const std::string& path) const { return root_ + path; }
  [[nodiscard]] std::string read(const std::string& path) const;
  [[nodiscard]] bool has(const std::string& path) const;
  /// Files, links and empty directories, a line each, without the tools and records of the host.
  [[nodiscard]] std::string files() const;

  /// Every path with mode, owners, size, times and inode. Access times are left out for files that
  /// the start of a program reads, and for all files if a normal user's mounts record them.
  [[nodiscard]] std::map<std::string, std::string> listing() const;

  Outcome run(const Circumstances& circumstances = {});
  /// Puts the program of probe.cpp at /probe.
  void put_probe();
  /// Replaces the programs with copies that also find the host's module list in a dry run. Needed
  /// for `inspect`.
  void put_faulty_programs();
  /// Runs valta-driver-inspect with `arguments` and `form`, and with the search path `path`. Its
  /// caller ignores SIGCHLD and has a file open. `options` are for the script that enters the host.
  Inspection inspect(const std::string& arguments, const std::string& path = "/usr/bin:/bin",
                     const std::string& form = "--json", const std::string& options = "");
  /// Runs the shell commands `commands` where `inspect` can be run.
  Inspection command(const std::string& commands);
  /// Runs tests/host/follow-page, which types the commands that valta-driver-inspect prints. `part`
  /// has the settings of this host. Returns everything that was printed and typed.
  std::string follow(const std::map<std::string, std::string>& part, bool heeds);
  /// Starts it with `verb` and returns its process.
  pid_t start_inspecting(const std::string& verb);
  /// Whether a process of `start_inspecting` still exists.
  [[nodiscard]] bool is_inhabited() const;
  /// Runs `body`, with its expectations, in a child process on this host. Its log is /log.
  void call(const std::function<void()>& body);

 private:
  std::string scratch_;
  std::string root_;
};

/// The expected results on the sample installation: the "log", the "trace", the files that are
/// "left", or the output of valta-driver-inspect, "before" and "after".
[[nodiscard]] std::string expected_of_sample(const std::string& what);

/// Expects `text` to be `expected_of_sample`. For scripts/renew-sample, writes it there.
void expect_of_sample(const std::string& what, const std::string& text);

inline const std::string kLog = "/var/log/zephanorvalta/driver_uninstaller.log";

/// The digest of an empty file.
inline const std::string kEmpty = "d41d8cd98f00b204e9800998ecf8427e";

}  // namespace valta
