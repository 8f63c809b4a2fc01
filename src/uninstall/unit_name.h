#pragma once

#include <string>

namespace valta {

/// Whether `unit` is a template or an instance, such as "a@" or "a@b".
[[nodiscard]] bool is_of_template(const std::string& unit);

/// The text before the first "@" of a template or an instance.
[[nodiscard]] std::string template_prefix(const std::string& unit);

/// The file of `unit`: a.service for "a", a@.service for "a@b", where the stack's installer puts
/// unit files.
[[nodiscard]] std::string unit_file_path(const std::string& unit);

/// Whether `path` is where the stack's installer puts unit files; /lib may be a link to /usr/lib.
[[nodiscard]] bool is_in_unit_directory(const std::string& path);

}  // namespace valta
