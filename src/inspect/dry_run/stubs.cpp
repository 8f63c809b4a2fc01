#include "inspect/dry_run/stubs.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <utility>

#include "inspect/dry_run/overlay.h"
#include "inspect/host/modules.h"
#include "inspect/host/units.h"
#include "uninstall/systemctl.h"
#include "utils/files.h"
#include "utils/regular_file.h"
#include "utils/search_path.h"
#include "utils/spawn.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

// Other exit statuses of systemctl.
constexpr int kMisused = 1;
constexpr int kRefused = 4;
constexpr int kNotLoaded = 5;

constexpr const char* kActionFile = "done";

/// In the order of `ActionKind`.
constexpr std::array<std::string_view, 4> kActionNames = {"unloaded", "disabled", "stopped",
                                                          "refused"};

std::string state_file(const char* name) {
  return std::string(Overlay::kToolDirectory) + "/" + name;
}

/// A line for each action: its name, a space, its object.
void note(ActionKind kind, const std::string& object) {
  std::ofstream(state_file(kActionFile), std::ios::app)
      << kActionNames.at(static_cast<std::size_t>(kind)) << ' ' << object << '\n';
}

bool was_refused(const std::string& unit) {
  const std::vector<Action> actions = read_actions(Overlay::kToolDirectory);
  return std::any_of(actions.begin(), actions.end(), [&](const Action& action) {
    return action.kind == ActionKind::refused && action.object == unit;
  });
}

int rmmod(const std::vector<std::string>& arguments) {
  std::string text;
  read_regular_file(state_file(kModuleListFile), text);
  std::vector<Module> modules = parse_modules(text);
  int status = 0;
  for (const std::string& name : arguments) {
    if (name.starts_with("-")) {
      continue;
    }
    if (const auto refusal = unload_module(modules, name)) {
      std::fprintf(stderr, "rmmod: ERROR: %s\n", refusal->c_str());
      status = 1;
    } else {
      note(ActionKind::unloaded, name);
    }
  }
  // Writes in place: this file is bind-mounted on the overlay's /proc/modules.
  std::ofstream(state_file(kModuleListFile), std::ios::trunc) << format_modules(modules);
  return status;
}

/// The exit status of the host's own systemctl, which comes after this one in PATH.
int call_systemctl(std::vector<std::string> arguments) {
  std::vector<std::string> directories = path_fields();
  std::erase(directories, Overlay::kToolDirectory);
  setenv("PATH", join(directories, ":").c_str(), 1);
  arguments.insert(arguments.begin(), "systemctl");
  return exit_status_of(std::move(arguments), Printing::shown);
}

/// Disabling a unit changes only files, so the host's own tool does it in the overlay.
int disable(const std::string& unit) {
  note(ActionKind::disabled, unit);
  return call_systemctl({"--root=/", "disable", unit});
}

int stop(const std::string& unit) {
  const std::string name = full_unit_name(unit);
  if (is_bare_template(unit)) {
    std::fprintf(stderr, "Failed to stop %s: Unit name %s is missing the instance name.\n",
                 name.c_str(), name.c_str());
    return kMisused;
  }
  if (refuses_to_stop(unit)) {
    note(ActionKind::refused, unit);
    std::fprintf(stderr,
                 "Failed to stop %s: Operation refused, unit %s may be requested by "
                 "dependency only (it is configured to refuse manual start/stop).\n",
                 name.c_str(), name.c_str());
    return kRefused;
  }
  if (unit_files(unit).empty() && !unit.ends_with(".slice")) {
    std::fprintf(stderr, "Failed to stop %s: Unit %s not loaded.\n", name.c_str(), name.c_str());
    return kNotLoaded;
  }
  note(ActionKind::stopped, unit);
  return 0;
}

int show_status(const std::string& unit) {
  const std::string name = full_unit_name(unit);
  if (is_bare_template(unit)) {
    std::fprintf(stderr,
                 "Failed to get properties: Unit name %s is neither a valid invocation ID "
                 "nor unit name.\n",
                 name.c_str());
    return kMisused;
  }
  if (was_refused(unit)) {
    return systemctl::kActive;
  }
  if (unit_files(unit).empty()) {
    std::fprintf(stderr, "Unit %s could not be found.\n", name.c_str());
    return systemctl::kUnknown;
  }
  return systemctl::kInactive;
}

struct SystemctlCommand {
  std::string_view name;
  int (*act)(const std::string& unit);
};

constexpr std::array<SystemctlCommand, 3> kSystemctlCommands = {
    {{"disable", &disable}, {"stop", &stop}, {"status", &show_status}}};

int systemctl_stub(const std::vector<std::string>& arguments) {
  const std::string name = arguments.empty() ? "" : arguments[0];
  if (name != "disable" && !is_directory("/run/systemd/system")) {
    return call_systemctl(arguments);  // for its own error message
  }
  if (name == "reset-failed" || name == "daemon-reload") {
    return 0;
  }
  const auto* const command =
      std::find_if(kSystemctlCommands.begin(), kSystemctlCommands.end(),
                   [&](const SystemctlCommand& row) { return row.name == name; });
  if (command == kSystemctlCommands.end()) {
    std::fprintf(stderr, "systemctl %s is not part of a dry run.\n", name.c_str());
    return kMisused;
  }
  int status = 0;
  for (auto unit = arguments.begin() + 1; unit != arguments.end(); ++unit) {
    if (const int code = command->act(*unit); code != 0) {
      status = code;
    }
  }
  return status;
}

struct Stub {
  const char* name;
  int (*run)(const std::vector<std::string>& arguments);
};

constexpr std::array<Stub, 2> kStubs = {{{"rmmod", &rmmod}, {"systemctl", &systemctl_stub}}};

}  // namespace

std::optional<int> run_as_stub(const std::string& name, const std::vector<std::string>& arguments) {
  for (const Stub& stub : kStubs) {
    if (stub.name == name) {
      return stub.run(arguments);
    }
  }
  return std::nullopt;
}

std::vector<std::string> needed_stubs() {
  std::vector<std::string> names;
  for (const Stub& stub : kStubs) {
    if (find_in_path_executable(stub.name)) {
      names.emplace_back(stub.name);
    }
  }
  return names;
}

std::vector<Action> read_actions(const std::string& tools) {
  std::string text;
  read_regular_file(tools + "/" + kActionFile, text);
  std::vector<Action> actions;
  for (const std::string& line : split(text, '\n')) {
    const auto* const name = std::find(kActionNames.begin(), kActionNames.end(),
                                       std::string_view(line).substr(0, line.find(' ')));
    if (name != kActionNames.end() && line.size() > name->size()) {
      actions.push_back(
          {static_cast<ActionKind>(name - kActionNames.begin()), line.substr(name->size() + 1)});
    }
  }
  return actions;
}

}  // namespace valta::inspect
