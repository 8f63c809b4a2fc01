#pragma once

#include <string>

#include "inspect/host/installation.h"
#include "inspect/report/report.h"

namespace valta::inspect {

/// Tells by whom the stack's modules in the list `modules` are held: other modules by name, but for
/// those that a run unloads itself, and processes that have a device of the module open or mapped,
/// as far as the kernel tells whose device that is. What holds a module and cannot be named is
/// counted.
void look_at_holders(const std::string& modules, const Installation& installation, Report& report);

}  // namespace valta::inspect
