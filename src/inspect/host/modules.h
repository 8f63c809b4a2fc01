#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace valta::inspect {

/// A loaded kernel module, a line of /proc/modules.
struct Module {
  std::string name;
  std::string size;
  int uses = 0;                    ///< by modules and by other users
  std::vector<std::string> users;  ///< the modules among them, and "[permanent]"
  std::string rest;                ///< state and address
};

/// The names of the driver's modules and of their companions.
[[nodiscard]] std::vector<std::string> stack_modules();

/// The text of /proc/modules; empty where a kernel loads no modules.
[[nodiscard]] std::string loaded_modules();

/// The modules of the text of such a list.
[[nodiscard]] std::vector<Module> parse_modules(std::string_view text);

/// The text of such a list.
[[nodiscard]] std::string format_modules(const std::vector<Module>& modules);

/// The module called `name`, in which "-" and "_" are the same; null when it is not loaded.
[[nodiscard]] const Module* find_module(const std::vector<Module>& modules, std::string_view name);

/// Removes the module `name` from `modules`, and its uses of other modules. If rmmod would refuse,
/// changes nothing and returns its message, without a newline.
[[nodiscard]] std::optional<std::string> unload_module(std::vector<Module>& modules,
                                                       const std::string& name);

}  // namespace valta::inspect
