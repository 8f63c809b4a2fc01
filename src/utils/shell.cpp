#include "utils/shell.h"

#include <array>
#include <cstddef>
#include <cstdio>

namespace valta {
namespace {

constexpr const char* kNeedNoQuotes =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+=:,@%";

constexpr unsigned char kDelete = 0x7F;

/// How many bytes the character at the front of `text` has; 0 for a control character, and where no
/// character of UTF-8 begins.
std::size_t length_of_character(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) {
    return first < ' ' || first == kDelete ? 0 : 1;
  }
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) {
    return 0;
  }
  for (const char next : text.substr(1, length - 1)) {
    if ((static_cast<unsigned char>(next) & 0xC0U) != 0x80) {
      return 0;
    }
  }
  // U+0080 to U+009F are control characters, too.
  return first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0 ? 0 : length;
}

}  // namespace

std::optional<std::string> shell_quoted(std::string_view word) {
  if (word.empty() || escaped(word) != word) {
    return std::nullopt;
  }
  if (word.find_first_not_of(kNeedNoQuotes) == std::string_view::npos) {
    return std::string(word);
  }
  std::string quoted = "'";
  for (const char c : word) {
    quoted += c == '\'' ? "'\\''" : std::string(1, c);
  }
  return quoted + "'";
}

std::string shell_command(std::string_view pattern, std::initializer_list<std::string_view> words) {
  std::string command(pattern);
  std::size_t at = 0;
  for (const std::string_view word : words) {
    const auto quoted = shell_quoted(word);
    at = command.find('%', at);
    if (!quoted || at == std::string::npos) {
      return "";
    }
    command.replace(at, 1, *quoted);
    at += quoted->size();
  }
  return command;
}

std::string escaped(std::string_view text) {
  std::string safe;
  while (!text.empty()) {
    const std::size_t length = length_of_character(text);
    if (length > 0) {
      safe += text.substr(0, length);
    } else {
      std::array<char, 5> octal{};
      std::snprintf(octal.data(), octal.size(), "\\%03o", static_cast<unsigned char>(text.front()));
      safe += octal.data();
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return safe;
}

}  // namespace valta
