#pragma once

#include <cstdint>

namespace valta::inspect {

/// The bytes of memory that this process can still use without harm to others: the available memory
/// of the host, or the rest of the limits of its control groups, if that is less. 0 if the kernel
/// does not report it.
[[nodiscard]] std::uint64_t available_memory();

}  // namespace valta::inspect
