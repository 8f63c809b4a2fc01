#pragma once

namespace valta::inspect {

/// Closes every way from this process around the overlay to the host: descriptors other than the
/// standard streams (when it executes a program), the terminal, core dumps, because the kernel may
/// start a program on the host for them, and all capabilities except those for work on files.
/// Neither it nor a program that it executes can gain any. Throws `NotPossible`.
void confine();

}  // namespace valta::inspect
