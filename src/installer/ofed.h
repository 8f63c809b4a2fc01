#pragma once

namespace valta {

/// Whether the host has the OFED kernel sources, without which the peer-memory companion module
/// cannot exist. Logs at Debug what is missing or which sources are in use; a version other than
/// the running kernel's is a Warning only and still counts as present. Sources that are a link
/// which cannot be resolved, or a kernel that does not tell its release (Warning), give false.
[[nodiscard]] bool ofed_present();

}  // namespace valta
