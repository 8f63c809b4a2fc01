#pragma once

namespace valta {

/// Says that this process begins with the step `text`, which lives as long as the program: for the
/// process that waits for it, and shows it to people.
void begin_step(const char* text);

/// The step that this process or, once it has forked, its child has begun last.
[[nodiscard]] const char* current_step();

}  // namespace valta
