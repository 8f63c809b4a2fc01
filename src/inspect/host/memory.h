#pragma once

#include <cstdint>

namespace valta::inspect {

/// The bytes of memory that this process can still use without harm to others: what the host has
/// available, or what the limits of its control groups leave, if that is less. 0 when the kernel
/// does not say.
[[nodiscard]] std::uint64_t available_memory();

}  // namespace valta::inspect
