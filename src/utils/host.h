#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace valta {

/// The distribution in /etc/os-release, without double quotes.
struct OsRelease {
  std::string id;
  std::string version_id;
};

/// Sets the file-creation mask of the process to 022. Returns the mask before.
mode_t set_umask();

/// Whether /proc/self/cgroup names docker, the only container engine looked for. Logs the line that
/// does at Debug; a file that cannot be opened names none, and `read_file_chunked` says so.
[[nodiscard]] bool running_in_container();

/// The first line of a cgroup file's text that names docker.
[[nodiscard]] std::optional<std::string_view> container_line(std::string_view cgroups);

/// Reads /etc/os-release into `release`. A file that is empty, or cannot be read (logged at Debug),
/// leaves it as it was.
void read_os_release(OsRelease& release);

/// Takes the values out of the text of an os-release file. Lines are matched by substring and the
/// last match wins: a VARIANT_ID or BUILD_ID line after the ID line replaces `id`. A value without
/// a line does not change.
void parse_os_release(std::string_view text, OsRelease& release);

}  // namespace valta
