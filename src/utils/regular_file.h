#pragma once

#include <string>

namespace valta {

/// Reads a whole regular file, and replaces `text` with it.
///
/// Returns false, leaving `text` alone, when `path` is something else or cannot be read to its end,
/// with errno set: a FIFO or a device would keep its reader waiting. Logs nothing.
bool read_regular_file(const std::string& path, std::string& text);

}  // namespace valta
