#pragma once

#include <optional>
#include <string>
#include <vector>

namespace valta::inspect {

/// The stubs of a dry run keep a list of modules in the file of this name in
/// `Overlay::kToolDirectory`, as /proc/modules has it.
inline constexpr const char* kModuleListFile = "modules";

enum class ActionKind { unloaded, disabled, stopped, refused };

/// An action of a stub, instead of the host's tool.
struct Action {
  ActionKind kind;
  std::string object;  ///< a module or a unit
};

/// Runs as the stub called `name`, with `arguments` without that name, and returns the exit status,
/// after the messages of the real tool; nothing when there is no such stub.
///
/// The stubs replace the tools that act on the kernel or on systemd, which no overlay can contain.
/// They use plain files in `Overlay::kToolDirectory` instead.
[[nodiscard]] std::optional<int> run_as_stub(const std::string& name,
                                             const std::vector<std::string>& arguments);

/// The names of the stubs whose tool this host has.
[[nodiscard]] std::vector<std::string> needed_stubs();

/// The actions of the stubs in the directory `tools`, in order.
[[nodiscard]] std::vector<Action> read_actions(const std::string& tools);

}  // namespace valta::inspect
