#pragma once

namespace valta {

/// Says that this process begins with `step`, a text that lives as long as the program: for the
/// process that waits for it, and shows it to people.
void begin_step(const char* step);

/// The step that this process or, once it has forked, its child has begun last.
[[nodiscard]] const char* current_step();

}  // namespace valta
