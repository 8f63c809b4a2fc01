#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace valta {

/// `word`, quoted for the shell if necessary. Nothing for a word that cannot be typed or copied
/// from a terminal: an empty one, and one with a control character or a byte that is not UTF-8.
[[nodiscard]] std::optional<std::string> shell_quoted(std::string_view word);

/// A command line: `pattern` with `words`, quoted for the shell, for each "%", in order. Empty when
/// a word cannot be quoted.
[[nodiscard]] std::string shell_command(std::string_view pattern,
                                        std::initializer_list<std::string_view> words);

/// `text` with "\" and three octal digits instead of each control character and of each byte that
/// is not UTF-8.
[[nodiscard]] std::string escaped(std::string_view text);

}  // namespace valta
