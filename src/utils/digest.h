#pragma once

#include <string>

namespace valta {

/// The MD5 digest of the file at `path` as the host's `md5sum` prints it: 32 lower-case hexadecimal
/// digits, behind a backslash when the name holds a backslash or a line feed.
///
/// Empty when there is no digest to be had: silently for a missing file, with a Warning when
/// `md5sum` could not be run, failed, or printed something else. `path` stands between single
/// quotes, unescaped; one that holds a single quote makes the shell fail.
[[nodiscard]] std::string file_md5(const std::string& path);

}  // namespace valta
