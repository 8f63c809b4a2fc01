#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace valta::inspect {

/// The step of a dry run that failed, and the error of the host.
class NotPossible : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws `NotPossible` with `tried` and the message of errno.
[[noreturn]] void fail_to(const std::string& tried);

/// Moves this process to new namespaces for mounts, IPC, host name and network. Other processes do
/// not see its mounts, and it reads the files of the host without changing their access times.
/// Throws `NotPossible` when the kernel denies that.
///
/// Hides two kinds of file systems from this process, so that no check waits for them or mounts
/// them: those that do not answer, and automounts that are not mounted yet. Returns their mount
/// points.
[[nodiscard]] std::vector<std::string> leave_namespaces();

}  // namespace valta::inspect
