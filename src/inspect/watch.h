#pragma once

#include <functional>
#include <optional>

namespace valta::inspect {

/// Runs `work` in a child process and waits for its end, `seconds` at most: a child that waits for
/// an unresponsive file system cannot be killed. Returns the child's exit status, or nothing if it
/// has not ended. The child ends with this process. If a step takes long and standard error is a
/// terminal, the step is shown there.
[[nodiscard]] std::optional<int> run_watched(const std::function<int()>& work, int seconds);

}  // namespace valta::inspect
