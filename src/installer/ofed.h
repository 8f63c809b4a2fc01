#pragma once

namespace valta {

/// Whether the host has the OFED kernel sources, which the peer-memory companion module is built
/// from. A companion whose sources were removed is not found. Logs the missing path, or the sources
/// in use, at Debug; a version other than the running kernel's is a Warning only and still counts
/// as present. Returns false for a dangling link, or if the kernel does not report its release
/// (Warning).
[[nodiscard]] bool ofed_present();

}  // namespace valta
