#pragma once

#include <string>
#include <vector>

namespace valta {

/// Whether the output of a command that is run without a shell is shown.
enum class Printing { shown, silent };

/// The exit status of a program that cannot be started, or that a signal ends.
inline constexpr int kNotRun = 127;

/// Runs `command`, a program of `PATH` and its arguments, without a shell, and waits for it to end.
/// Returns its exit status (0-255), or `kNotRun`.
[[nodiscard]] int exit_status_of(std::vector<std::string> command, Printing printing);

/// Runs `command` in the same way with the regular file `input` as its standard input, and puts its
/// standard output into `output`. Returns whether it ended with exit status 0. Its standard error
/// is dropped.
[[nodiscard]] bool output_of(std::vector<std::string> command, const std::string& input,
                             std::string& output);

/// Runs `command` in the same way with the descriptors `input` and `output` as its streams, and
/// puts its standard error into `complaint`. Returns its exit status, or `kNotRun`.
[[nodiscard]] int run_between(std::vector<std::string> command, int input, int output,
                              std::string& complaint);

}  // namespace valta
