#include "inspect/host/modules.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "installer/driver_installer.h"
#include "installer/remove_driver.h"
#include "utils/regular_file.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

constexpr std::size_t kFieldsBeforeRest = 4;

std::string with_underscores(std::string_view name) {
  std::string normal(name);
  std::replace(normal.begin(), normal.end(), '-', '_');
  return normal;
}

}  // namespace

std::vector<std::string> stack_modules() {
  std::vector<std::string> names(kDriverNames.begin(), kDriverNames.end());
  names.insert(names.end(), {kCompanion, kPeerMemoryCompanion});
  return names;
}

std::string loaded_modules() {
  std::string text;
  read_regular_file("/proc/modules", text);
  return text;
}

std::vector<Module> parse_modules(std::string_view text) {
  std::vector<Module> modules;
  FieldReader lines(text, '\n');
  while (const auto line = lines.next()) {
    const std::vector<std::string> fields = split(*line, ' ');
    if (fields.size() < kFieldsBeforeRest) {
      continue;
    }
    Module module{fields[0], fields[1], std::atoi(fields[2].c_str()), {}, {}};
    if (fields[3] != "-") {
      module.users = split(fields[3], ',');  // each user is followed by a comma
    }
    for (auto field = kFieldsBeforeRest; field < fields.size(); ++field) {
      module.rest += " " + fields[field];
    }
    modules.push_back(std::move(module));
  }
  return modules;
}

std::string format_modules(const std::vector<Module>& modules) {
  std::string text;
  for (const Module& module : modules) {
    text += module.name + " " + module.size + " " + std::to_string(module.uses) + " ";
    for (const std::string& user : module.users) {
      text += user + ",";
    }
    text += (module.users.empty() ? "-" : "") + module.rest + "\n";
  }
  return text;
}

const Module* find_module(const std::vector<Module>& modules, std::string_view name) {
  const auto found = std::find_if(modules.begin(), modules.end(), [&](const Module& module) {
    return module.name == with_underscores(name);
  });
  return found == modules.end() ? nullptr : &*found;
}

std::optional<std::string> unload_module(std::vector<Module>& modules, const std::string& name) {
  const Module* const module = find_module(modules, name);
  if (module == nullptr) {
    return "Module " + name + " is not currently loaded";
  }
  if (module->uses > 0 || !module->users.empty()) {  // "[permanent]" is no use
    std::string refusal = "Module " + name + " is in use";
    for (std::size_t user = 0; user < module->users.size(); ++user) {
      refusal += (user == 0 ? " by: " : " ") + module->users[user];
    }
    return refusal;
  }
  const std::string gone = module->name;
  modules.erase(modules.begin() + (module - modules.data()));
  for (Module& used : modules) {
    used.uses -= static_cast<int>(std::erase(used.users, gone));
  }
  return {};
}

}  // namespace valta::inspect
