#pragma once

#include <string>

namespace valta::inspect {

/// Whether `digest` is one as `md5sum` prints it: 32 lower-case hexadecimal digits.
[[nodiscard]] bool is_md5(const std::string& digest);

/// The MD5 digest of the regular file at `path`, whatever its name; empty when there is no
/// `md5sum`, or it fails. Runs it without a shell, with the file as its standard input.
[[nodiscard]] std::string md5_of(const std::string& path);

/// The first line that `md5sum` prints to standard error for the regular file at `path`, which a
/// run takes for a part of its digest; empty for none.
[[nodiscard]] std::string complaint_of_md5sum(const std::string& path);

}  // namespace valta::inspect
