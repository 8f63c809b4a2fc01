#include "inspect/units.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>

#include "utils/files.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

/// systemd's own order.
constexpr std::array<const char*, 13> kUnitDirectories = {
    "/etc/systemd/system.control",   "/run/systemd/system.control",  "/run/systemd/transient",
    "/run/systemd/generator.early",  "/etc/systemd/system",          "/etc/systemd/system.attached",
    "/run/systemd/system",           "/run/systemd/system.attached", "/run/systemd/generator",
    "/usr/local/lib/systemd/system", "/lib/systemd/system",          "/usr/lib/systemd/system",
    "/run/systemd/generator.late",
};

constexpr std::array<std::string_view, 11> kUnitTypes = {
    ".automount", ".device", ".mount", ".path",   ".scope", ".service",
    ".slice",     ".socket", ".swap",  ".target", ".timer"};

std::vector<std::string> files_called(const std::string& name) {
  std::vector<std::string> files;
  for (const char* const directory : kUnitDirectories) {
    std::string file = std::string(directory) + "/" + name;
    std::error_code ignored;
    const bool repeated = !files.empty() && fs::equivalent(files.back(), file, ignored);
    if (!repeated && path_exists(file)) {
      files.push_back(std::move(file));
    }
  }
  return files;
}

bool says_so(const std::string& file) {
  std::string text;
  if (!try_read_file(file, text)) {
    return false;
  }
  const std::vector<std::string> lines = split(text, '\n');
  return std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    const auto value = value_after(line, "RefuseManualStop=");
    return value && (*value == "yes" || *value == "true" || *value == "on" || *value == "1");
  });
}

}  // namespace

std::string full_unit_name(const std::string& unit) {
  for (const std::string_view type : kUnitTypes) {
    if (unit.ends_with(type)) {
      return unit;
    }
  }
  return unit + ".service";
}

bool is_bare_template(const std::string& unit) {
  return full_unit_name(unit).find("@.") != std::string::npos;
}

std::vector<std::string> unit_files(const std::string& unit) {
  const std::string name = full_unit_name(unit);
  std::vector<std::string> files = files_called(name);
  const auto at = name.find('@');
  if (files.empty() && at != std::string::npos) {
    files = files_called(name.substr(0, at + 1) + name.substr(name.rfind('.')));
  }
  return files;
}

bool refuses_to_stop(const std::string& unit) {
  const std::vector<std::string> files = unit_files(unit);
  if (!files.empty() && says_so(files.front())) {
    return true;
  }
  for (const char* const directory : kUnitDirectories) {
    std::error_code ignored;
    const std::string drop_ins = std::string(directory) + "/" + full_unit_name(unit) + ".d";
    for (const auto& drop_in : fs::directory_iterator(drop_ins, ignored)) {
      if (says_so(drop_in.path())) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace valta::inspect
