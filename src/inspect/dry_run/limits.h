#pragma once

namespace valta::inspect {

/// Raises two limits of the caller: for open files, because a host may have more mounts, and for
/// the size of files, because exceeding it would kill this process without a message.
void raise_limits();

/// Restores the caller's limit for open files and the default signal for a file that is too large,
/// before a program is executed.
void restore_limits();

/// Makes the kernel kill this process and its children first when memory is short.
void offer_memory();

}  // namespace valta::inspect
