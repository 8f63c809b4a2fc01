#pragma once

#include <string>

namespace valta {

/// The MD5 digest of the file at `path` as the host's `md5sum` prints it: 32 lower-case hexadecimal
/// digits, after a backslash if the name has a backslash or a line feed.
///
/// Empty if the digest cannot be computed: silently for a missing file, with a Warning when
/// `md5sum` could not be run, failed, or printed something else. `path` is put between single
/// quotes, unescaped: a path with a single quote makes the shell fail.
[[nodiscard]] std::string file_md5(const std::string& path);

}  // namespace valta
