#pragma once

#include <string>

namespace valta::inspect {

/// Whether the kernel lets nobody delete `path`, a link not followed, or change what is in it,
/// until its attribute "immutable" or "append only" is taken off. False where its file system has
/// no such attributes.
[[nodiscard]] bool is_immutable(const std::string& path);

}  // namespace valta::inspect
