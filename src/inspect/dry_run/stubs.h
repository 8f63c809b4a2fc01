#pragma once

#include <string>
#include <vector>

namespace valta::inspect {

/// The tools that act on the kernel or on systemd, past any image of the host. In a rehearsal this
/// program runs under their names and acts on plain files in `Image::kToolDirectory` instead:
/// "modules", a list as /proc/modules, and "done", to which it adds a line for each thing that it
/// did ("unloaded NAME", "disabled UNIT", "stopped UNIT", "refused UNIT").
struct StandIn {
  const char* name;
  /// `arguments` without the name. Returns the exit status, after the messages of the real tool.
  int (*run)(const std::vector<std::string>& arguments);
};

/// The stand-in for the tool called `name`; null when there is none.
[[nodiscard]] const StandIn* find_stand_in(const std::string& name);

/// The names of those that stand in for a tool which this host has.
[[nodiscard]] std::vector<std::string> needed_stand_ins();

}  // namespace valta::inspect
