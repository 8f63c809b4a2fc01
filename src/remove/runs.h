#pragma once

#include <string>

#include "utils/descriptor.h"

namespace valta::inspect::removal {

// Each run has a directory that only root can read, with these files:
inline constexpr const char* kArchive = "saved.tar";  ///< what the run removed or changed
inline constexpr const char* kBefore = "before.json";
inline constexpr const char* kOutput = "output";    ///< the run's standard output
inline constexpr const char* kConsole = "console";  ///< the run's standard error
inline constexpr const char* kLogCopy = "log";
inline constexpr const char* kLeft = "left";  ///< what the run left at the paths of the archive
inline constexpr const char* kPage = "after.txt";
inline constexpr const char* kAfter = "after.json";
inline constexpr const char* kUndone = "undone";  ///< exists once the run has been undone

/// Creates the directory of the runs, and locks it as long as the result exists. Throws
/// std::runtime_error if another run or undo is active.
[[nodiscard]] Descriptor lock_runs();

/// Creates the directory of a new run and returns its path. Throws std::runtime_error.
[[nodiscard]] std::string make_run();

/// The archive of the run `name`, or the file `name` if it contains a "/". If `name` is empty, the
/// archive of the last run that has one. Throws std::runtime_error if there is none.
[[nodiscard]] std::string find_archive(const std::string& name);

/// Deletes all but the last few runs.
void delete_old_runs();

/// Prints a line for each run, the oldest first.
void list_runs();

}  // namespace valta::inspect::removal
