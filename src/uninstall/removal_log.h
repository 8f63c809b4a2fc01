#pragma once

#include <string>

namespace valta {

/// Logs at Info how the removal of `path` ended.
void log_removal(const std::string& path, bool removed);

}  // namespace valta
