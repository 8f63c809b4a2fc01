#pragma once

namespace valta {

#pragma pack(push, 1)
/// A program that must be on the search path.
struct RequiredUtility {
  const char* name;     ///< as typed on a command line
  const char* package;  ///< the distribution's package(s) that bring it, for the message
  bool found;           ///< written by `check_system_utilities`
};
#pragma pack(pop)
static_assert(sizeof(RequiredUtility) == 2 * sizeof(const char*) + 1, "the record is packed");

/// Looks every utility of `table` up and writes its `found`. Returns whether all were found.
///
/// Logs a Debug line for each one found and an Error line for each one missing. Rewrites `PATH` as
/// `find_in_path_executable` does. A null `table` gives false, a `count` of 0 or less true. Rows
/// are counted in 8 bits: a `count` over 255 is refused with an Error line and gives false.
[[nodiscard]] bool check_system_utilities(RequiredUtility* table, int count);

}  // namespace valta
