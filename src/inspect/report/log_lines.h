#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace valta::inspect {

[[nodiscard]] inline bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

/// The text in `line` between the first `before` and the last `after` that follows. Some messages
/// have no newline, so both can be anywhere in the line.
[[nodiscard]] inline std::optional<std::string> text_between(const std::string& line,
                                                             std::string_view before,
                                                             std::string_view after) {
  const auto start = line.find(before);
  const auto end = start == std::string::npos ? start : line.rfind(after);
  if (end == std::string::npos || end < start + before.size()) {
    return std::nullopt;
  }
  return line.substr(start + before.size(), end - start - before.size());
}

}  // namespace valta::inspect
