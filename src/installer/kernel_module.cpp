#include "installer/kernel_module.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <regex>

#include "log/log.h"
#include "utils/files.h"

namespace valta {
namespace {

constexpr const char* kModuleList = "/proc/modules";

/// Groups: size, use count.
constexpr const char* kModulePattern = "(?:^|\n)(?:%s)[ \t]+([0-9]+)[ \t]+([0-9]+).*";
constexpr std::size_t kPartsOfMatch = 3;

std::regex module_pattern(const std::string& name) {
  std::array<char, 128> pattern{};
  std::snprintf(pattern.data(), pattern.size(), kModulePattern, name.c_str());
  // The polynomial matcher of libstdc++: the default one recurses once a character, and a module
  // with a long list of users would overflow the stack.
  return std::regex(pattern.data(), std::regex::ECMAScript | std::regex_constants::__polynomial);
}

}  // namespace

ModuleStatus module_status(const std::string& name) {
  std::string modules;
  read_file_chunked(kModuleList, modules);
  return module_status_in(modules, name);
}

ModuleStatus module_status_in(const std::string& modules, const std::string& name) {
  std::smatch match;
  if (!std::regex_search(modules, match, module_pattern(name))) {
    zvlogger::log(LogLevel::Debug, "get module status on module: %s not installed.\n",
                  name.c_str());
    return ModuleStatus::not_loaded;
  }
  if (match.size() != kPartsOfMatch) {
    zvlogger::log(LogLevel::Debug, "get module status on module: %s Match size incorrect: %d\n",
                  name.c_str(), static_cast<int>(match.size()));
    for (const auto& part : match) {
      zvlogger::log(LogLevel::Debug, "**%s**\n", part.str().c_str());
    }
    return ModuleStatus::match_error;
  }
  if (match.str(2).starts_with('0')) {
    zvlogger::log(LogLevel::Debug, "get module status on module: %s not referenced\n",
                  name.c_str());
    return ModuleStatus::unreferenced;
  }
  zvlogger::log(LogLevel::Debug, "get module status on module: %s is being used.\n", name.c_str());
  return ModuleStatus::in_use;
}

void try_to_unload(const std::string& name) {
  [[maybe_unused]] const int ignored = std::system(("rmmod " + name + " 2>/dev/null").c_str());
}

bool unload(const std::string& name, CommandResult& result) {
  return succeeds("rmmod " + name, result);
}

}  // namespace valta
