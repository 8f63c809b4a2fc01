#include "uninstall/service.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "log/log.h"
#include "uninstall/manifest_state.h"
#include "uninstall/removal_log.h"
#include "utils/command.h"
#include "utils/digest.h"
#include "utils/files.h"
#include "utils/host.h"

namespace valta {
namespace {

constexpr const char* kUnitDirectory = "/lib/systemd/system";

/// What `systemctl status` exits with for a unit that systemd does not know.
constexpr std::uint32_t kUnknownUnit = 4;

bool is_template(const std::string& unit) { return unit.find('@') != std::string::npos; }

/// "a" has the file a.service, "a@b" has a@.service.
std::string unit_file_path(const std::string& unit) {
  const std::string name = is_template(unit) ? unit.substr(0, unit.find('@') + 1) : unit;
  return std::filesystem::path(kUnitDirectory) / (name + ".service");
}

bool unchanged(const std::string& path, const std::string& digest) {
  // The look-up leaves an empty digest behind, which a later file entry of this path meets, and
  // which an entry without a digest equals: both are meant to be so.
  return DigestCache[path] == digest || file_md5(path) == digest;
}

void run_unchecked(const std::string& command) {
  std::string ignored;
  run_command_quiet_status(command, ignored);
}

bool known_to_systemd(const std::string& unit) {
  CommandResult result;
  return !run_command("systemctl status " + unit + " 2>&1", result.output, result.status) ||
         result.status != kUnknownUnit;
}

void stop_slice_of_instances(const std::string& unit) {
  if (!is_template(unit)) {
    zvlogger::log(LogLevel::Debug, "not template. f.path:%s\n", unit.c_str());
    return;
  }
  const std::string slice = "system/" + unit.substr(0, unit.find('@')) + ".slice";
  run_unchecked("systemctl stop $(systemd-escape " + slice + ");");
}

}  // namespace

ResultCode HandleServiceEntry(const ManifestEntry& entry) {
  if (running_in_container()) {
    zvlogger::log(LogLevel::Info, "Skip systemctl in side docker.\n");
    return ResultCode::tolerated;
  }
  const std::string& unit = entry.path;
  run_unchecked("systemctl disable " + unit + " 2>&1; systemctl stop " + unit + " 2>&1");

  const std::string unit_file = unit_file_path(unit);
  zvlogger::log(LogLevel::Debug, "checking service_file %s\n", unit_file.c_str());
  if (path_exists(unit_file)) {
    if (!unchanged(unit_file, entry.digest)) {
      zvlogger::log(LogLevel::Print, "%s's md5 mismatch, skip remove. please check it's content.\n",
                    unit_file.c_str());
      return ResultCode::success;
    }
    // A file that stays shows up as a unit that systemd still knows.
    std::remove(unit_file.c_str());
    log_removal(unit_file, true);
  }

  run_unchecked("systemctl reset-failed;systemctl daemon-reload");
  if (known_to_systemd(unit)) {
    zvlogger::log(LogLevel::Info, "Uninstall: service:%s failed.\n", unit.c_str());
    zvlogger::log(LogLevel::Warning, "    service %s may not being removed properly.\n",
                  unit.c_str());
    return ResultCode::service_remains;
  }
  zvlogger::log(LogLevel::Info, "Uninstall: service:%s success.\n", unit.c_str());
  stop_slice_of_instances(unit);
  return ResultCode::success;
}

}  // namespace valta
