#pragma once

#include <string>
#include <vector>

namespace valta {

// A path with a NUL byte names nothing: the tests below answer false and the readers cannot open
// it, instead of acting on the file that its front part names.

/// Whether `path` exists, following links: a dangling link does not.
[[nodiscard]] bool path_exists(const std::string& path);

/// Whether this process may execute (or, for a directory, search) `path`.
[[nodiscard]] bool is_executable(const std::string& path);

/// Whether `path`, following links, is a directory.
[[nodiscard]] bool is_directory(const std::string& path);

/// Whether `path` itself is a symbolic link.
[[nodiscard]] bool is_symlink(const std::string& path);

/// Reads a file whose size the kernel does not report, such as those under /proc.
///
/// Appends to `text`. Reads 1024 bytes at a time and uses the bytes of each read before its first
/// NUL byte. Returns false when the file cannot be opened, after printing "Failed to open PATH" to
/// standard output, which is not logged. A read error, such as in a directory, counts as the end of
/// the file.
bool read_file_chunked(const std::string& path, std::string& text);

/// Reads a whole file, NUL bytes included, and replaces `text` with it.
///
/// Returns false, leaving `text` alone, when the file cannot be opened or read to its end, and logs
/// which at Debug: half of a file may say something else than the whole. A directory can be opened
/// and is empty.
bool read_file(const std::string& path, std::string& text);

/// Whether a line of the file at `path` holds `needle`. Paths that begin with "/proc" are read with
/// `read_file_chunked`, others with `read_file`; a file that cannot be read holds no line.
[[nodiscard]] bool file_has_line_with(const std::string& path, const std::string& needle);

/// Expands a shell pattern, a leading "~" too. Returns the matches sorted.
///
/// No match gives an empty list and a Debug line, any other failure an empty list and a Warning.
[[nodiscard]] std::vector<std::string> glob_paths(const std::string& pattern);

}  // namespace valta
