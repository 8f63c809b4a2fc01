#include "uninstall/unit_name.h"

#include <filesystem>

namespace valta {
namespace {

constexpr const char* kUnitDirectory = "/lib/systemd/system";

}  // namespace

bool is_of_template(const std::string& unit) { return unit.find('@') != std::string::npos; }

std::string template_prefix(const std::string& unit) { return unit.substr(0, unit.find('@')); }

std::string unit_file_path(const std::string& unit) {
  const std::string name = is_of_template(unit) ? template_prefix(unit) + "@" : unit;
  return std::filesystem::path(kUnitDirectory) / (name + ".service");
}

bool is_in_unit_directory(const std::string& path) {
  const std::string directory = std::string(kUnitDirectory) + "/";
  return path.starts_with(directory) || path.starts_with("/usr" + directory);
}

}  // namespace valta
