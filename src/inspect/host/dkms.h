#pragma once

#include <string>
#include <vector>

namespace valta::inspect {

/// The trees that DKMS may keep its versions in: the one that a run reads from framework.conf comes
/// first; then those that dkms itself, a shell script, reads from there and from framework.conf.d.
[[nodiscard]] std::vector<std::string> dkms_trees();

/// The versions that DKMS has of the module, as paths, in all of its trees.
[[nodiscard]] std::vector<std::string> dkms_registrations();

}  // namespace valta::inspect
