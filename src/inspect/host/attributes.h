#pragma once

#include <string>

namespace valta::inspect {

/// Whether `path`, a link not followed, has the attribute "immutable" or "append only", so that
/// nobody can delete it or change its content. False if its file system has no such attributes.
[[nodiscard]] bool is_immutable(const std::string& path);

}  // namespace valta::inspect
