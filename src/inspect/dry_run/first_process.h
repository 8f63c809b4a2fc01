#pragma once

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "inspect/dry_run/overlay.h"
#include "utils/descriptor.h"

namespace valta::inspect {

/// The first process of a PID namespace of its own, which runs a program in an overlay and waits
/// for it. When it ends, all other processes there end with it, and it ends with this process.
class FirstProcess {
 public:
  /// Starts `program`, an absolute path on the host, confined, with nothing to read and with the
  /// descriptors `output` and `console` as its streams. Throws `NotPossible`.
  FirstProcess(const Overlay& overlay, const std::string& program, int output, int console);
  /// Kills all processes of the namespace. One that waits for a file system that does not answer is
  /// left behind until it does.
  ~FirstProcess();
  FirstProcess(const FirstProcess&) = delete;
  FirstProcess& operator=(const FirstProcess&) = delete;

  /// Waits for the program to end, `timeout` seconds at most, or until `gives_up`, which is asked
  /// every now and then, says so. Returns its exit status, 128 + N when signal N ended it; nothing
  /// when it has not ended. Throws `NotPossible` when the program could not be started.
  [[nodiscard]] std::optional<int> wait(int timeout, const std::function<bool()>& gives_up) const;

  /// The command lines of the processes that the program waits for in the end.
  [[nodiscard]] std::vector<std::string> last_commands() const;

 private:
  pid_t pid_;
  Descriptor report_;    ///< what the first process has to say
  Descriptor lifeline_;  ///< it finds this closed when this process is gone
};

}  // namespace valta::inspect
