#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace valta {

/// `word` as a shell takes it, in quotes where it needs them. Nothing for a word that nobody could
/// type or copy from a terminal: an empty one, and one with a control character or a byte that is
/// not UTF-8.
[[nodiscard]] std::optional<std::string> shell_quoted(std::string_view word);

/// A command line: `pattern` with `words`, quoted for the shell, in the places of its "%", in
/// order. Empty when a word cannot be quoted.
[[nodiscard]] std::string shell_command(std::string_view pattern,
                                        std::initializer_list<std::string_view> words);

/// `text` with "\" and three octal digits in the place of each control character and of each byte
/// that is not UTF-8.
[[nodiscard]] std::string escaped(std::string_view text);

}  // namespace valta
