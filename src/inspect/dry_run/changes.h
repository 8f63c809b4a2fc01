#pragma once

#include <string>
#include <vector>

#include "inspect/report/report.h"

namespace valta::inspect {

/// What a run changed.
struct Changes {
  std::vector<Removal> removed;      ///< what was in a removed directory, too
  std::vector<std::string> written;  ///< new, or with another content, mode or owner
};

/// What the upper layer of an overlay, the directory `upper`, says about its lower one. Paths begin
/// with "/", at the root of the layers.
[[nodiscard]] Changes compare_layers(const std::string& lower, const std::string& upper);

}  // namespace valta::inspect
