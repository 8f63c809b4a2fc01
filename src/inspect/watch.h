#pragma once

#include <functional>
#include <optional>

namespace valta::inspect {

/// Runs `work` in a child process and waits for it to end, `seconds` at most: a child that waits
/// for a file system that does not answer can be neither ended nor waited for. Returns its exit
/// status; nothing when it has not ended. It ends with this process. Shows on a terminal's standard
/// error at which step it is, once that takes a while.
[[nodiscard]] std::optional<int> run_watched(const std::function<int()>& work, int seconds);

}  // namespace valta::inspect
