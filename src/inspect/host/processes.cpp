#include "inspect/host/processes.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

#include "inspect/host/modules.h"
#include "installer/ofed.h"
#include "installer/remove_driver.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

constexpr unsigned kMiscMajor = 10;

struct Holder {
  std::string pid;
  std::string command;
  std::string device;
  std::string service;  ///< that the process belongs to; empty for none
  int uses = 0;         ///< its open files of the device
};

/// The character devices of a module.
struct Devices {
  std::set<dev_t> numbers;
  std::set<unsigned> majors;

  [[nodiscard]] bool holds(const struct stat& status) const {
    return S_ISCHR(status.st_mode) &&
           (numbers.contains(status.st_rdev) || majors.contains(major(status.st_rdev)));
  }
};

unsigned number_in(const std::string& text) {
  return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
}

/// Takes the "MAJOR:MINOR" of a device's file `dev`.
void add_number(const std::string& path, Devices& devices) {
  std::string text;
  if (read_file(path, text) && text.find(':') != std::string::npos) {
    devices.numbers.insert(makedev(number_in(text), number_in(text.substr(text.find(':') + 1))));
  }
}

/// The kernel says which devices belong to a module where hardware is behind them; of others it
/// only has the names that the module chose.
Devices devices_of(const std::string& module) {
  Devices devices;
  for (const std::string& driver : paths_below("/sys/module/" + module + "/drivers")) {
    for (const std::string& device : paths_below(driver + "/")) {
      for (const std::string& path : paths_below(device + "/")) {
        if (path.ends_with("/dev")) {
          add_number(path, devices);
        }
      }
    }
  }
  const auto read_names = [&](const char* file, const auto& take) {
    std::string text;
    read_file(file, text);
    for (const std::string& line : split(text, '\n')) {
      const auto digits = line.find_first_not_of(' ');
      const auto blank = line.find(' ', digits);
      if (blank != std::string::npos && line.find(module, blank) == blank + 1) {
        take(number_in(line));
      }
    }
  };
  read_names("/proc/devices", [&](unsigned number) { devices.majors.insert(number); });
  read_names("/proc/misc",
             [&](unsigned number) { devices.numbers.insert(makedev(kMiscMajor, number)); });
  return devices;
}

std::string first_line(const std::string& path) {
  std::string text;
  read_file(path, text);
  return text.substr(0, text.find('\n'));
}

/// The service of the system in the path of a control group.
std::string service_of(const std::string& group) {
  const std::string name = last_component(group);
  const bool is_users = group.find("/user@") != std::string::npos;
  return name.ends_with(".service") && !is_users ? name : "";
}

std::vector<Holder> processes_with(const Devices& devices) {
  std::vector<Holder> holders;
  std::error_code ignored;
  for (const auto& process : fs::directory_iterator("/proc", ignored)) {
    const std::string pid = process.path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::map<std::string, int> found;
    for (const char* const kind : {"fd", "map_files"}) {
      for (const auto& file : fs::directory_iterator(process.path() / kind, ignored)) {
        struct stat status {};
        if (stat(file.path().c_str(), &status) == 0 && devices.holds(status)) {
          // However often it is mapped, that is one open file.
          int& uses = found[fs::read_symlink(file.path(), ignored)];
          uses = kind == std::string_view("fd") ? uses + 1 : std::max(uses, 1);
        }
      }
    }
    for (const auto& [device, uses] : found) {
      holders.push_back({pid, first_line(process.path() / "comm"), device,
                         service_of(first_line(process.path() / "cgroup")), uses});
    }
  }
  return holders;
}

/// Whether a run unloads `name` before the driver.
bool is_unloaded_first(const std::string& name, const std::vector<Module>& list) {
  const Module* const module = find_module(list, name);
  return module != nullptr && module->uses == 0 &&
         (name == kCompanion || (name == kPeerMemoryCompanion && ofed_present()));
}

}  // namespace

void look_at_holders(const std::string& modules, const Installation& installation, Report& report) {
  const std::vector<Module> list = parse_modules(modules);
  for (const std::string& name : stack_modules()) {
    const Module* const module = find_module(list, name);
    if (module == nullptr) {
      continue;
    }
    int unnamed = module->uses;
    for (const std::string& user : module->users) {
      if (user.starts_with('[')) {
        report.add("module-held", Severity::blocks,
                   "The module " + name + " is " + user + ": it cannot be unloaded.", name);
        continue;
      }
      --unnamed;
      if (!is_unloaded_first(user, list)) {
        report.add("module-held", Severity::blocks,
                   "The module " + name + " is used by " + user + ".", user, "rmmod " + user);
      }
    }
    if (unnamed <= 0) {
      continue;
    }
    for (const Holder& holder : processes_with(devices_of(name))) {
      unnamed -= holder.uses;
      report.add(
          "module-held", Severity::blocks,
          "The module " + name + " is used by process " + holder.pid + ", " + holder.command +
              ", which has " + holder.device + " open.",
          holder.device,
          holder.service.empty() ? "kill " + holder.pid : "systemctl stop " + holder.service);
    }
    if (unnamed > 0) {
      report.add("module-held", Severity::blocks,
                 "The module " + name + " is held " +
                     counted(static_cast<std::size_t>(unnamed), "time") +
                     " by what the kernel does not name.",
                 name, "grep -ls " + installation.root + " /proc/[0-9]*/maps");
    }
  }
}

}  // namespace valta::inspect
