#include "utils/host.h"

#include <sys/stat.h>
#include <utility>

#include "log/log.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta {
namespace {

constexpr mode_t kUmask = 022;
constexpr const char* kCgroupPath = "/proc/self/cgroup";
constexpr const char* kOsReleasePath = "/etc/os-release";
constexpr const char* kContainerWord = "docker";

}  // namespace

mode_t set_umask() { return umask(kUmask); }

bool running_in_container() {
  std::string cgroups;
  read_file_chunked(kCgroupPath, cgroups);
  const auto line = container_line(cgroups);
  if (line) {
    zvlogger::log(LogLevel::Debug, "seeking %s found line is #%s#\n", kContainerWord,
                  std::string(*line).c_str());
  }
  return line.has_value();
}

std::optional<std::string_view> container_line(std::string_view cgroups) {
  FieldReader lines(cgroups, '\n');
  while (const auto line = lines.next()) {
    if (line->find(kContainerWord) != std::string_view::npos) {
      return line;
    }
  }
  return std::nullopt;
}

void read_os_release(OsRelease& release) {
  std::string text;
  read_file(kOsReleasePath, text);
  parse_os_release(text, release);
}

void parse_os_release(std::string_view text, OsRelease& release) {
  FieldReader lines(text, '\n');
  while (const auto line = lines.next()) {
    if (auto version = value_after(*line, "VERSION_ID=")) {
      release.version_id = *std::move(version);
    } else if (auto id = value_after(*line, "ID=")) {
      release.id = *std::move(id);
    }
  }
}

}  // namespace valta
