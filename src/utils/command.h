#pragma once

#include <cstdint>
#include <string>

namespace valta {

/// The result of a command. `status` starts at 0, and is still 0 if the shell could not be started.
struct CommandResult {
  std::string output;
  std::uint32_t status = 0;
};

/// Runs `command` with the shell, " 2>&1" appended, and waits for it to end.
///
/// `output` is cleared, then holds all of standard output and standard error in the order the pipe
/// delivered them. `status` receives the exit code (0-255); a shell killed by a signal gives 0.
/// Returns false, leaving `status` alone, when the shell could not be started, and for a command
/// with a NUL byte: the shell would run only the part before it. A command that fails is no error
/// here. Quotes nothing and logs nothing.
[[nodiscard]] bool run_command(const std::string& command, std::string& output,
                               std::uint32_t& status);

/// Like `run_command`, for callers who do not ask for the exit code.
bool run_command_quiet_status(const std::string& command, std::string& output);

/// Like `run_command`, but standard error is captured only when `merge_stderr` is true.
[[nodiscard]] bool run_command_redirect(const std::string& command, std::string& output,
                                        std::uint32_t& status, bool merge_stderr);

/// Whether `command`, run as by `run_command`, was started and ended with exit code 0. `result`
/// holds its output and its exit code.
[[nodiscard]] bool succeeds(const std::string& command, CommandResult& result);

}  // namespace valta
