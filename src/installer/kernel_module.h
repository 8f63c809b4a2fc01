#pragma once

#include <cstdint>
#include <string>

#include "utils/command.h"

namespace valta {

/// The state of a kernel module. Negative: it is loaded.
enum class ModuleStatus : std::int32_t {
  in_use = -2,
  unreferenced = -1,
  not_loaded = 0,
  match_error = 1,  ///< the name has groups, or its length cuts one off: the match cannot be read
};

/// Looks `name` up in /proc/modules. Logs the answer at Debug.
///
/// `name` is a part of a regular expression, unescaped, which is cut at 127 characters. Throws
/// std::regex_error when the outcome is no regular expression, or has a back-reference. A module
/// list that cannot be opened is empty, and `read_file_chunked` says so.
[[nodiscard]] ModuleStatus module_status(const std::string& name);

/// The same for the text of a module list. Only the first line whose first field is `name` counts,
/// and only the first character of its use count.
[[nodiscard]] ModuleStatus module_status_in(const std::string& modules, const std::string& name);

[[nodiscard]] constexpr bool is_loaded(ModuleStatus status) {
  return static_cast<std::int32_t>(status) < 0;
}

/// Runs `rmmod` for a module that may not be loaded. Logs nothing; query the status again to see
/// the result.
void try_to_unload(const std::string& name);

/// Runs `rmmod` and returns whether it succeeded; `result` holds its output.
[[nodiscard]] bool unload(const std::string& name, CommandResult& result);

}  // namespace valta
