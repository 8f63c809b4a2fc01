#pragma once

namespace valta {

/// Whether the host has the OFED kernel sources, which the peer-memory companion module is built
/// from. One that outlived its sources is not noticed. Logs at Debug what is missing or which
/// sources are in use; a version other than the running kernel's is a Warning only and still counts
/// as present. Sources that are a link which cannot be resolved, or a kernel that does not tell its
/// release (Warning), give false.
[[nodiscard]] bool ofed_present();

}  // namespace valta
