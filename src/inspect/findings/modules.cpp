#include "inspect/host/modules.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <sys/utsname.h>
#include <vector>

#include "inspect/findings/findings.h"
#include "inspect/findings/looks.h"
#include "inspect/host/devices.h"
#include "inspect/host/processes.h"
#include "installer/ofed.h"
#include "installer/remove_driver.h"
#include "utils/files.h"
#include "utils/search_path.h"
#include "utils/shell.h"
#include "utils/spawn.h"
#include "utils/wording.h"

namespace valta::inspect {
namespace {

/// Whether a run unloads `name` before the driver.
bool is_unloaded_first(const std::string& name, const std::vector<Module>& list) {
  const Module* const module = find_module(list, name);
  return module != nullptr && module->uses == 0 &&
         (name == kCompanion || (name == kPeerMemoryCompanion && ofed_present()));
}

/// Reports the other modules that use `module`. Returns the number of their uses.
int look_at_modules_that_use(const Module& module, const std::vector<Module>& list,
                             Report& report) {
  int uses = 0;
  for (const std::string& user : module.users) {
    if (user.starts_with('[')) {
      report.add("module-held",
                 "The module " + module.name + " is " + user + ": it cannot be unloaded.",
                 module.name);
      continue;
    }
    ++uses;
    if (!is_unloaded_first(user, list)) {
      report.add("module-held", "The module " + user + " uses the module " + module.name + ".",
                 user, shell_command("rmmod %", {user}));
    }
  }
  return uses;
}

int look_at_processes_that_use(const Module& module, Report& report) {
  int uses = 0;
  for (const Holder& holder : processes_with(devices_of(module.name))) {
    uses += holder.uses;
    report.add("module-held",
               "Process " + holder.pid + ", " + holder.command +
                   (holder.service.empty() ? "" : " of " + holder.service) + ", has " +
                   holder.device + " of the module " + module.name + " open.",
               holder.device,
               holder.service.empty() ? shell_command("kill %", {holder.pid})
                                      : shell_command("systemctl stop %", {holder.service}));
  }
  return uses;
}

/// A tool that lists an initial ramdisk, the path of the ramdisk, and the command that rebuilds it.
struct InitrdTools {
  const char* lister;
  const char* file;  ///< in front of the kernel's release
  const char* ending;
  const char* rebuild;
};

constexpr std::array<InitrdTools, 2> kInitrdTools = {{
    {"lsinitramfs", "/boot/initrd.img-", "", "update-initramfs -u -k %"},
    {"lsinitrd", "/boot/initramfs-", ".img", "dracut -f --kver %"},
}};

}  // namespace

void look_at_module_users(const std::string& modules, const Installation& installation,
                          Report& report) {
  const std::vector<Module> list = parse_modules(modules);
  for (const std::string& name : stack_modules()) {
    const Module* const module = find_module(list, name);
    if (module == nullptr) {
      continue;
    }
    int unnamed = module->uses - look_at_modules_that_use(*module, list, report);
    if (unnamed > 0) {
      unnamed -= look_at_processes_that_use(*module, report);
    }
    if (unnamed > 0) {
      report.add("module-users",
                 "The module " + name + " has " +
                     counted(static_cast<std::size_t>(unnamed), "user") +
                     " that the kernel does not identify.",
                 name, "grep -ls " + installation.root + " /proc/[0-9]*/maps");
    }
  }
}

void look_at_loaded_modules(Report& report) {
  const std::vector<Module> modules = parse_modules(loaded_modules());
  for (const std::string& name : stack_modules()) {
    if (find_module(modules, name) != nullptr) {
      report.add("module-loaded", "The module " + name + " is loaded.", name,
                 shell_command("rmmod %", {name}));
    }
  }
}

void look_at_initrd(Report& report) {
  utsname kernel{};
  uname(&kernel);
  for (const InitrdTools& tools : kInitrdTools) {
    const std::string file = std::string(tools.file) + kernel.release + tools.ending;
    std::string list;
    if (!path_exists(file) || !find_in_path_executable(tools.lister) ||
        !output_of({tools.lister, file}, "/dev/null", list)) {
      continue;
    }
    for (const std::string& name : stack_modules()) {
      if (list.find("/" + name + ".ko") != std::string::npos) {
        report.add("initrd-holds",
                   "The initial ramdisk " + file + " holds the module " + name +
                       ", and a run does not rebuild it. Rebuild it after the run.",
                   file, after_run(shell_command(tools.rebuild, {kernel.release}), report));
        return;
      }
    }
  }
}

}  // namespace valta::inspect
