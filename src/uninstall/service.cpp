#include "uninstall/service.h"

#include <cstdio>

#include "log/log.h"
#include "uninstall/manifest_state.h"
#include "uninstall/removal_log.h"
#include "uninstall/systemctl.h"
#include "uninstall/unit_name.h"
#include "utils/digest.h"
#include "utils/files.h"
#include "utils/host.h"

namespace valta {
namespace {

bool unchanged(const std::string& path, const std::string& digest) {
  // The look-up adds an empty digest: a later FILE entry of this path finds it and keeps the file,
  // too.
  return DigestCache[path] == digest || file_md5(path) == digest;
}

void stop_slice_of_instances(const std::string& unit) {
  if (is_of_template(unit)) {
    systemctl::stop_slice_of_template(template_prefix(unit));
  } else {
    zvlogger::log(LogLevel::Debug, "not template. f.path:%s\n", unit.c_str());
  }
}

}  // namespace

ResultCode HandleServiceEntry(const ManifestEntry& entry) {
  if (running_in_container()) {
    zvlogger::log(LogLevel::Info, "Skip systemctl in side docker.\n");
    return ResultCode::tolerated;
  }
  const std::string& unit = entry.path;
  systemctl::disable_and_stop(unit);

  const std::string unit_file = unit_file_path(unit);
  zvlogger::log(LogLevel::Debug, "checking service_file %s\n", unit_file.c_str());
  if (path_exists(unit_file)) {
    if (!unchanged(unit_file, entry.digest)) {
      zvlogger::log(LogLevel::Print, "%s's md5 mismatch, skip remove. please check it's content.\n",
                    unit_file.c_str());
      return ResultCode::success;
    }
    // If this fails, systemd still knows the unit, which is reported below.
    std::remove(unit_file.c_str());
    log_removal(unit_file, true);
  }

  systemctl::forget_and_reload();
  if (systemctl::knows(unit)) {
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
