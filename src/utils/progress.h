#pragma once

namespace valta {

/// Announces that this process begins the step `text`, a string literal. The process that waits for
/// this one shows the step.
void begin_step(const char* text);

/// The step that this process or, once it has forked, its child has begun last.
[[nodiscard]] const char* current_step();

}  // namespace valta
