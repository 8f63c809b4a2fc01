#include "inspect/host/units.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <string_view>
#include <strings.h>

#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/regular_file.h"
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

/// The values that systemd reads as true, in upper or lower case.
constexpr std::array<const char*, 6> kYes = {"1", "yes", "y", "true", "t", "on"};

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

/// The name of the template of an instance; `name` itself for any other unit.
std::string template_of(const std::string& name) {
  return is_of_template(name) ? template_prefix(name) + "@" + name.substr(name.rfind('.')) : name;
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
  return files.empty() ? files_called(template_of(name)) : files;
}

bool read_refusal(const std::string& text, bool refuses) {
  constexpr std::string_view key = "RefuseManualStop=";
  for (std::string line : split(text, '\n')) {
    std::erase_if(line, [](char c) { return c == ' ' || c == '\t'; });
    if (line.starts_with(key)) {
      refuses = std::any_of(kYes.begin(), kYes.end(), [&](const char* yes) {
        return strcasecmp(yes, line.c_str() + key.size()) == 0;
      });
    }
  }
  return refuses;
}

std::vector<std::string> active_units() {
  constexpr std::string_view kind = "invocation:";  // deleted when the unit is no longer active
  std::vector<std::string> units;
  for (const std::string& name : names_in("/run/systemd/units")) {
    if (name.starts_with(kind)) {
      units.push_back(name.substr(kind.size()));
    }
  }
  return units;
}

bool refuses_to_stop(const std::string& unit) {
  const std::vector<std::string> active = active_units();
  if (std::find(active.begin(), active.end(), full_unit_name(unit)) == active.end()) {
    return false;
  }
  bool refuses = false;
  std::string text;
  if (const std::vector<std::string> files = unit_files(unit);
      !files.empty() && read_regular_file(files.front(), text)) {
    refuses = read_refusal(text, refuses);
  }
  // systemd reads drop-ins in the order of their names. Of two with the same name, it reads the one
  // in the first directory.
  const std::string name = full_unit_name(unit);
  std::map<std::string, std::string> drop_ins;
  for (const std::string& owner : {name, template_of(name)}) {
    for (const char* const directory : kUnitDirectories) {
      const std::string place = std::string(directory) + "/" + owner + ".d/";
      for (const std::string& file : names_in(place)) {
        drop_ins.emplace(file, place + file);
      }
    }
  }
  for (const auto& [file, path] : drop_ins) {
    if (file.ends_with(".conf") && read_regular_file(path, text)) {
      refuses = read_refusal(text, refuses);
    }
  }
  return refuses;
}

}  // namespace valta::inspect
