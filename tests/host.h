#pragma once

#include <functional>
#include <string>
#include <vector>

namespace valta {

/// What one run of the uninstaller left behind.
struct Outcome {
  int status;           ///< exit status; 128 + N when signal N ended it
  std::string output;   ///< standard output
  std::string console;  ///< standard error
  std::string trace;    ///< the command lines it ran; indented, the scripted tools they called
  std::string log;
};

/// A throwaway host root in a scratch directory, with the machine's own shell, md5sum and rm,
/// scripted tools and nothing installed. Where it cannot be laid out or entered, the test fails.
class Host {
 public:
  Host();
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Puts the complete sample installation on it, with its modules loaded.
  void install_sample();
  void manifest(const std::vector<std::string>& lines);
  void load_module(const std::string& name);
  /// Runs `commands` with the host's own shell, untraced. Besides mkdir, ln, mkfifo, rm and sed
  /// there are `file PATH [CONTENT]` and `tool PATH SCRIPT`, which replaces a tool, to call.
  void sh(const std::string& commands);

  [[nodiscard]] std::string read(const std::string& path) const;
  [[nodiscard]] bool has(const std::string& path) const;
  /// Files, links and empty directories, a line each, but for the tools and records of the host.
  [[nodiscard]] std::string files() const;

  /// Runs the uninstaller with `PATH` and one more variable as its environment, with `options` of
  /// the script that enters the host. The console is kept, or piped to `reader`.
  Outcome run(const std::string& variable = "LANG=C", const std::string& options = "",
              const std::string& reader = "");
  /// Runs `body`, with its expectations, in a child process on this host.
  void call(const std::function<void()>& body);

 private:
  std::string scratch_;
  std::string root_;
};

inline const std::string kManifest = "/var/log/zephanorvalta/uninstall/.driver_uninstall_manifests";
inline const std::string kLog = "/var/log/zephanorvalta/driver_uninstaller.log";

/// The digest of an empty file.
inline const std::string kEmpty = "d41d8cd98f00b204e9800998ecf8427e";

}  // namespace valta
