#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace valta::inspect {

/// Says what a dry run needed, and what the host answered.
class NotPossible : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws `NotPossible`: `tried`, and what errno means.
[[noreturn]] void fail_to(const std::string& tried);

/// Puts this process into namespaces of its own for mounts, IPC, host name and network. Mounts made
/// from now on are seen by nobody else, and the files of the host are read without touching their
/// access times. Throws `NotPossible` when the kernel denies that.
///
/// Takes out of the view of this process, and returns by their mount points, what a look at must
/// not wait for, or must not mount: file systems that do not answer, and automounts that nobody has
/// used yet.
[[nodiscard]] std::vector<std::string> leave_namespaces();

}  // namespace valta::inspect
