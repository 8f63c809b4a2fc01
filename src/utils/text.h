#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace valta {

/// Whether `text` holds a NUL byte: the system would use only the part before it.
[[nodiscard]] bool has_nul(std::string_view text);

/// Walks the fields of a text as a line reader does: every field counts, empty ones too; a
/// delimiter at the end of the text opens no further field, and an empty text has none.
/// The text must outlive the reader and its fields.
class FieldReader {
 public:
  FieldReader(std::string_view text, char delimiter) : rest_(text), delimiter_(delimiter) {}

  /// The next field, without its delimiter; nothing after the last one.
  std::optional<std::string_view> next();

 private:
  std::string_view rest_;
  char delimiter_;
};

/// All fields of `text`, by the rules of `FieldReader`.
std::vector<std::string> split(std::string_view text, char delimiter);

/// `fields` in one text, with `separator` between them.
std::string join(const std::vector<std::string>& fields, std::string_view separator);

/// The text in `line` after the first occurrence of `key`, without any double quotes; nothing when
/// `key` does not occur.
std::optional<std::string> value_after(std::string_view line, std::string_view key);

/// The last component of `path`, without "/" characters at the end.
std::string last_component(std::string_view path);

/// `text` with lower-case ASCII letters.
[[nodiscard]] std::string lower_case(std::string text);

}  // namespace valta
