#pragma once

#include <cstdint>
#include <string>

#include "utils/command.h"

namespace valta {

/// How a kernel module stands. Negative: it is loaded.
enum class ModuleStatus : std::int32_t {
  in_use = -2,
  unreferenced = -1,
  not_loaded = 0,
  match_error = 1,  ///< the name brings groups, or its length cuts one: the match cannot be read
};

/// Looks `name` up in /proc/modules. Logs the answer at Debug.
///
/// `name` goes into a regular expression as it stands, which is cut at 127 characters. Throws
/// std::regex_error when the outcome is no regular expression, or has a back-reference. A module
/// list that cannot be opened is empty, and `read_file_chunked` says so.
[[nodiscard]] ModuleStatus module_status(const std::string& name);

/// The same for the text of a module list. The first line whose first field is `name` decides, and
/// of its use count only the first character.
[[nodiscard]] ModuleStatus module_status_in(const std::string& modules, const std::string& name);

[[nodiscard]] constexpr bool is_loaded(ModuleStatus status) {
  return static_cast<std::int32_t>(status) < 0;
}

/// Runs `rmmod` for a module that may not be there, past the log. Whether it worked, a new status
/// query tells.
void try_to_unload(const std::string& name);

/// Runs `rmmod` and returns whether it ended well; `result` holds what it printed.
[[nodiscard]] bool unload(const std::string& name, CommandResult& result);

}  // namespace valta
