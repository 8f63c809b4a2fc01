#pragma once

#include <string>
#include <vector>

#include "inspect/report/report.h"

namespace valta::inspect {

/// The changes of a run.
struct Changes {
  std::vector<Removal> removed;      ///< also the content of removed directories
  std::vector<std::string> written;  ///< new, or with another content, mode or owner
};

/// The differences between the layers of an overlay, the directories `lower` and `upper`. Paths
/// begin with "/", at the root of the layers.
[[nodiscard]] Changes compare_layers(const std::string& lower, const std::string& upper);

}  // namespace valta::inspect
