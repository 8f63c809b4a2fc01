#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace valta::inspect {

/// The text of the last run's log; nothing when there is none, or it cannot be read.
[[nodiscard]] std::optional<std::string> read_log();

/// When the log was last written to or replaced, in seconds and nanoseconds; 0 when there is none.
[[nodiscard]] std::pair<std::int64_t, std::int64_t> time_of_log();

/// Where the modules of the running kernel are. A container may have none.
[[nodiscard]] std::string kernel_module_directory();

/// Whether the module dependency data of the running kernel has been refreshed since the log was
/// last written to.
[[nodiscard]] bool dependencies_are_newer_than_log();

/// The directory that the log is in, or would be made in, if its file system is full; else empty.
[[nodiscard]] std::string full_log_directory();

}  // namespace valta::inspect
