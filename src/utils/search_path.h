#pragma once

#include <string>
#include <vector>

namespace valta {

/// The fields of `PATH`, empty ones too; none when it is not set.
[[nodiscard]] std::vector<std::string> path_fields();

/// Whether a directory of the search path holds an executable file called `name`.
///
/// Side effect: appends the system directories to `PATH`, drops repeated directories (keeps the
/// first) and stores the result, so that every later command finds the system's tools whatever the
/// caller's environment was. Empty fields are kept: this function reads one as the root directory,
/// but the shell that runs the commands reads it as the current directory. A file that is not
/// executable does not hide one further on.
[[nodiscard]] bool find_in_path_executable(const std::string& name);

/// The full path of the first file called `name` in a directory of `PATH`, executable or not; empty
/// when there is none or `PATH` is not set. Empty fields of `PATH` are skipped.
[[nodiscard]] std::string which(const std::string& name);

}  // namespace valta
