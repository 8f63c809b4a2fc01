#pragma once

namespace valta::inspect {

/// Raises the limits that the caller set this process for open files, since a host may have more
/// mounts than that, and for the size of files, which would end it without a word.
void raise_limits();

/// Gives this process the caller's limit for open files and the usual signal for a file that is too
/// large again, for a program to be executed.
void restore_limits();

/// Has the kernel choose this process and its children first when memory is short.
void offer_memory();

}  // namespace valta::inspect
