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
  /// Kills all processes of the namespace. A process that waits for an unresponsive file system is
  /// left until the file system answers.
  ~FirstProcess();
  FirstProcess(const FirstProcess&) = delete;
  FirstProcess& operator=(const FirstProcess&) = delete;

  /// Waits for the program to end, `timeout` seconds at most, or until `gives_up`, which is called
  /// regularly, returns true. Returns its exit status, 128 + N when signal N ended it; nothing when
  /// it has not ended. Throws `NotPossible` when the program could not be started.
  [[nodiscard]] std::optional<int> wait(int timeout, const std::function<bool()>& gives_up) const;

  /// The command lines of the processes that the program waits for in the end.
  [[nodiscard]] std::vector<std::string> last_commands() const;

 private:
  pid_t pid_;
  Descriptor report_;    ///< from the first process
  Descriptor lifeline_;  ///< closed when this process ends
};

}  // namespace valta::inspect
