#pragma once

#include <cstdint>
#include <string>

namespace valta {

/// The level of a message: selects its prefix in the log file, and whether standard error shows it.
/// The values index the prefix table.
enum class LogLevel : std::int8_t {
  Debug = 0,    ///< "Debug: ", file only
  Print = 1,    ///< no prefix, file and standard error (unless quiet)
  Info = 2,     ///< no prefix, file only
  Warning = 3,  ///< "Warning: ", file only
  Error = 4,    ///< "Error: ", file only: the closing line sends the administrator there
  Emerge = 5,   ///< "Emerge: ", file and standard error, quiet or not
};

/// The log of a run.
inline constexpr const char* kLogPath = "/var/log/zephanorvalta/driver_uninstaller.log";

/// The one log of the process. Every other module writes through it.
namespace zvlogger {

/// Creates the missing directories of `path` with mode 0755 (less the umask) and opens the file,
/// emptied: a log holds exactly one run. The directories of a path longer than 255 bytes are taken
/// from its first 255 bytes. Programs that this process starts do not get the open file.
///
/// A file that cannot be opened ends the process with status 1 and "Failed to init zvlogger." on
/// standard error. Call once, before other threads log.
void init(const std::string& path);

/// Writes one message, formatted as by printf, with the level's prefix in the file and without it
/// on the console. `format` carries its own "\n". The file is flushed before the call returns.
///
/// Without an open file (before `init`, after `close`) the message only goes to standard error. A
/// message that cannot be formatted, or for which the file system has no space, is not written to
/// the file, without an error. Safe to call from several threads.
[[gnu::format(printf, 2, 3)]] void log(LogLevel level, const char* format, ...);

/// Closes the log file if one is open. Call when no other thread logs.
void close();

/// From now on, messages of level `Print` only go to the file.
void set_quiet();

}  // namespace zvlogger
}  // namespace valta
