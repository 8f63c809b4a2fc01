#pragma once

#include <string>

#include "inspect/host/installation.h"

namespace valta::inspect {

/// The uninstaller beside this program; empty if this program does not know its own path.
[[nodiscard]] std::string program_beside();

/// The uninstaller to run on this host: the one beside this program, since a run of the installed
/// copy keeps shared files; else the installed one; else its bare name.
[[nodiscard]] std::string program_to_run(const Installation& installation);

}  // namespace valta::inspect
