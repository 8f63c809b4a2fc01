#include "inspect/dry_run/stubs.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "inspect/dry_run/overlay.h"
#include "inspect/host/modules.h"
#include "inspect/host/units.h"
#include "utils/files.h"
#include "utils/search_path.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

std::string state_file(const char* name) { return std::string(Image::kToolDirectory) + "/" + name; }

void note(const std::string& deed) {
  std::ofstream(state_file("done"), std::ios::app) << deed << '\n';
}

bool noted(const std::string& deed) {
  std::string text;
  read_file(state_file("done"), text);
  const std::vector<std::string> deeds = split(text, '\n');
  return std::find(deeds.begin(), deeds.end(), deed) != deeds.end();
}

int rmmod(const std::vector<std::string>& arguments) {
  std::string text;
  read_file(state_file("modules"), text);
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
      note("unloaded " + name);
    }
  }
  // In place: what is bound over the image's /proc/modules is this very file.
  std::ofstream(state_file("modules"), std::ios::trunc) << format_modules(modules);
  return status;
}

/// The host's own tool behind the stand-in of its name; empty when there is none.
std::string real_tool(const std::string& name) {
  const char* const path = std::getenv("PATH");
  for (const std::string& directory : split(path == nullptr ? "" : path, ':')) {
    std::string candidate = directory + "/" + name;
    if (directory != Image::kToolDirectory && path_exists(candidate) && is_executable(candidate)) {
      return candidate;
    }
  }
  return "";
}

/// The exit status of the host's own systemctl.
int call_systemctl(std::vector<std::string> arguments) {
  const std::string tool = real_tool("systemctl");
  arguments.insert(arguments.begin(), "systemctl");
  std::vector<char*> command;
  command.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    command.push_back(argument.data());
  }
  command.push_back(nullptr);
  pid_t child = -1;
  int status = 0;
  if (posix_spawn(&child, tool.c_str(), nullptr, nullptr, command.data(), environ) != 0 ||
      waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
    return kMisused;
  }
  return WEXITSTATUS(status);
}

/// What disabling does is done by files alone: the host's own tool does that in the image.
int disable(const std::string& unit) {
  note("disabled " + unit);
  return call_systemctl({"--root=/", "disable", unit});
}

int stop(const std::string& unit) {
  if (is_bare_template(unit)) {
    std::fprintf(stderr, "Failed to stop %s: Unit name %s is missing the instance name.\n",
                 full_unit_name(unit).c_str(), full_unit_name(unit).c_str());
    return kMisused;
  }
  if (refuses_to_stop(unit)) {
    note("refused " + unit);
    std::fprintf(stderr,
                 "Failed to stop %s: Operation refused, unit %s may be requested by "
                 "dependency only (it is configured to refuse manual start/stop).\n",
                 full_unit_name(unit).c_str(), full_unit_name(unit).c_str());
    return kUnknown;
  }
  if (unit_files(unit).empty() && !unit.ends_with(".slice")) {
    std::fprintf(stderr, "Failed to stop %s: Unit %s not loaded.\n", full_unit_name(unit).c_str(),
                 full_unit_name(unit).c_str());
    return kNotLoaded;
  }
  note("stopped " + unit);
  return 0;
}

int tell_status(const std::string& unit) {
  if (is_bare_template(unit)) {
    std::fprintf(stderr,
                 "Failed to get properties: Unit name %s is neither a valid invocation ID "
                 "nor unit name.\n",
                 full_unit_name(unit).c_str());
    return kMisused;
  }
  if (noted("refused " + unit)) {
    return kActive;
  }
  if (unit_files(unit).empty()) {
    std::fprintf(stderr, "Unit %s could not be found.\n", full_unit_name(unit).c_str());
    return kUnknown;
  }
  return kInactive;
}

int systemctl(const std::vector<std::string>& arguments) {
  const std::string verb = arguments.empty() ? "" : arguments[0];
  if (verb != "disable" && !is_directory("/run/systemd/system")) {
    return call_systemctl(arguments);  // which says so in its own words
  }
  if (verb == "reset-failed" || verb == "daemon-reload") {
    return 0;
  }
  int (*const act)(const std::string&) = verb == "disable"  ? &disable
                                         : verb == "stop"   ? &stop
                                         : verb == "status" ? &tell_status
                                                            : nullptr;
  if (act == nullptr) {
    std::fprintf(stderr, "systemctl %s is not part of a rehearsal.\n", verb.c_str());
    return kMisused;
  }
  int status = 0;
  for (auto unit = arguments.begin() + 1; unit != arguments.end(); ++unit) {
    if (const int code = act(*unit); code != 0) {
      status = code;
    }
  }
  return status;
}

constexpr std::array<StandIn, 2> kStandIns = {{{"rmmod", &rmmod}, {"systemctl", &systemctl}}};

}  // namespace

const StandIn* find_stand_in(const std::string& name) {
  const auto* const found = std::find_if(kStandIns.begin(), kStandIns.end(),
                                         [&](const StandIn& tool) { return tool.name == name; });
  return found == kStandIns.end() ? nullptr : found;
}

std::vector<std::string> needed_stand_ins() {
  std::vector<std::string> names;
  for (const StandIn& tool : kStandIns) {
    if (find_in_path_executable(tool.name)) {
      names.emplace_back(tool.name);
    }
  }
  return names;
}

}  // namespace valta::inspect
