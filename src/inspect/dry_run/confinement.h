#pragma once

namespace valta::inspect {

/// Takes from this process whatever leads past the overlay to the host: descriptors other than the
/// standard streams (closed when it executes a program), the terminal, core dumps, for which the
/// kernel may start a program there, and all capabilities but those that work on files takes.
/// Neither it nor a program that it executes can gain any. Throws `NotPossible`.
void confine();

}  // namespace valta::inspect
