#include "uninstall/dkms.h"

#include <cstdint>
#include <cstdio>

#include "log/log.h"
#include "uninstall/dkms_config.h"
#include "utils/command.h"
#include "utils/files.h"
#include "utils/host.h"
#include "utils/search_path.h"
#include "utils/text.h"

namespace valta {
namespace {

/// The exit status of `dkms remove` for a version that it does not know: nothing is left to remove.
constexpr std::uint32_t kUnknownVersion = 3;

ResultCode remove_registration(const std::string& version) {
  const std::string command = "dkms remove valta/" + version + " --all 2>&1";
  zvlogger::log(LogLevel::Debug, "CMD: %s\n", command.c_str());
  CommandResult result;
  if (succeeds(command, result) || result.status == kUnknownVersion) {
    return ResultCode::success;
  }
  std::printf("Error happened in %s. please check manually. remove returns %d.\n%s\n",
              command.c_str(), static_cast<int>(result.status), result.output.c_str());
  return ResultCode::dkms_failed;
}

ResultCode remove_sources(const std::string& version) {
  const std::string directory = kDkmsSourcePrefix + version;
  zvlogger::log(LogLevel::Debug, "CMD: %s\n", directory.c_str());
  CommandResult result;
  if (!path_exists(directory) || succeeds("rm -rf " + directory + " 2>&1", result)) {
    return ResultCode::success;
  }
  zvlogger::log(LogLevel::Warning,
                "remove dkms src /usr/src/%s may failed. please remove it manually.\n",
                version.c_str());
  return ResultCode::dkms_failed;
}

}  // namespace

bool is_version_directory(const std::string& path) {
  const std::string source = path + "/source";
  return !is_symlink(path) && (is_symlink(source) || is_directory(source));
}

ResultCode RemoveDkmsModule(const std::string& /*path*/) {
  if (which("dkms").empty()) {
    zvlogger::log(
        LogLevel::Warning,
        "dkms not installed, exit dkms uninstall.\n if you have dkms, please check PATH.");
    return ResultCode::dkms_missing;
  }
  for (const auto& match : glob_paths(ParseDkmsConfig().dkms_tree + "/valta/*")) {
    zvlogger::log(LogLevel::Info, "checking %s\n", match.c_str());
    if (!is_version_directory(match)) {
      continue;
    }
    const std::string version = last_component(match);
    if (const auto code = remove_registration(version); code != ResultCode::success) {
      return code;
    }
    if (const auto code = remove_sources(version); code != ResultCode::success) {
      return code;
    }
  }
  return ResultCode::success;
}

ResultCode HandleDkmsEntry(const ManifestEntry& entry) {
  if (running_in_container()) {
    zvlogger::log(LogLevel::Info, "in side docker. skip dkms uninstall.\n");
    return ResultCode::success;
  }
  const ResultCode code = RemoveDkmsModule(entry.path);
  return code == ResultCode::dkms_missing ? ResultCode::success : code;
}

}  // namespace valta
