#include "uninstall/manifest.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include "inspect/findings/looks.h"
#include "inspect/host/digest.h"
#include "uninstall/dkms.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/paths.h"
#include "utils/shell.h"
#include "utils/text.h"
#include "utils/wording.h"

namespace valta::inspect {
namespace {

/// The characters of unit names that are not special to a shell: a run does not quote the name.
constexpr const char* kUnitNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789:_.@-";

std::string show_line(std::size_t line) {
  return shell_command("sed -n % %", {std::to_string(line) + "p", kUninstallManifestPath});
}

std::string place_of(std::size_t line) {
  return std::string(kUninstallManifestPath) + ":" + std::to_string(line);
}

/// Whether a run cannot look at `path` as a directory: it is a link to itself, a FIFO, a name that
/// is too long.
bool is_odd_directory(const std::string& path) {
  struct stat status {};
  if (has_nul(path)) {
    return false;
  }
  if (stat(path.c_str(), &status) != 0) {
    return errno != ENOENT && errno != ENOTDIR;
  }
  return !S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode);
}

/// Why a run stops at `entry`; empty when it does not.
std::string reason_to_stop(const ManifestEntry& entry) {
  const auto target = target_of(entry.type);
  if (!target) {
    return entry.type.empty() ? "is empty" : "has the unknown type " + entry.type;
  }
  return target == EntryTarget::directory && is_odd_directory(entry.path)
             ? "names a path that is not a directory"
             : "";
}

/// One command for all such lines: the numbers of lines change with each that is deleted.
void look_at_lines_that_stop(const Installation& installation, Report& report) {
  std::vector<std::string> deletions;
  std::vector<std::string> lines;
  for (std::size_t line = 1; line <= installation.entries.size(); ++line) {
    if (const std::string reason = reason_to_stop(installation.entries[line - 1]);
        !reason.empty()) {
      const std::string number = std::to_string(line);
      deletions.push_back(number + "d");
      lines.push_back("line " + number + " " + reason);
    }
  }
  if (!lines.empty()) {
    report.add("manifest-type", "A run stops in the manifest: " + some_of(lines) + ".",
               kUninstallManifestPath,
               shell_command("sed -i.bak % %", {join(deletions, ";"), kUninstallManifestPath}));
  }
}

struct Damage {
  Severity severity;
  const char* text;
};

bool has_control_byte(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return c < ' ' || c == 0x7F; });
}

/// How the meaning of `line` differs from its appearance; nothing if it does not. For lines that do
/// not stop a run.
std::optional<Damage> damage_of(const ManifestEntry& entry, const std::string& line) {
  const auto target = target_of(entry.type);
  const std::vector<std::string> fields = split(line, ' ');
  if (has_control_byte(line) || fields.size() > 3) {
    return {{Severity::keeps, "has a space, or a character that cannot be printed, in a field"}};
  }
  const bool is_absolute = entry.path.starts_with('/') || target == EntryTarget::unit ||
                           target == EntryTarget::dkms_module;
  if (fields.size() < 2 || fields[1].empty() || !is_absolute) {
    return {{Severity::keeps, "names nothing that can be removed"}};
  }
  if (target == EntryTarget::file && path_exists(entry.path) &&
      (fields.size() < 3 || fields[2].empty())) {
    return {{Severity::keeps, "has no digest, so its file counts as changed"}};
  }
  if (target == EntryTarget::unit && entry.digest.empty()) {
    return {
        {Severity::note, "ends in two spaces, so its unit file is deleted even if it was changed"}};
  }
  return {};
}

void look_at_lines(const Installation& installation, Report& report) {
  for (std::size_t line = 1; line <= installation.entries.size(); ++line) {
    const ManifestEntry& entry = installation.entries[line - 1];
    if (!reason_to_stop(entry).empty()) {
      continue;
    }
    const std::string number = std::to_string(line);
    const auto target = target_of(entry.type);
    if (target == EntryTarget::unit &&
        entry.path.find_first_not_of(kUnitNameCharacters) != std::string::npos) {
      report.add("unit-name",
                 "Line " + number +
                     " of the manifest names a unit with a character that is special to the shell.",
                 place_of(line), show_line(line));
    } else if (const auto damage = damage_of(entry, installation.lines[line - 1])) {
      report.add("manifest-line", damage->severity,
                 "Line " + number + " of the manifest " + damage->text + ".", place_of(line),
                 show_line(line));
    }
  }
}

/// The number of the first entry that `fits`, counted from 1; 0 when none does.
template <typename Fits>
std::size_t line_of(const Installation& installation, const Fits& fits) {
  const auto& entries = installation.entries;
  const auto found = std::find_if(entries.begin(), entries.end(), fits);
  return found == entries.end() ? 0 : static_cast<std::size_t>(found - entries.begin()) + 1;
}

void look_at_order(const Installation& installation, Report& report) {
  const auto sources = line_of(installation, [](const ManifestEntry& entry) {
    return target_of(entry.type) == EntryTarget::file && entry.path.starts_with(kDkmsSourcePrefix);
  });
  const auto dkms = line_of(installation, [](const ManifestEntry& entry) {
    return target_of(entry.type) == EntryTarget::dkms_module;
  });
  if (sources != 0 && sources < dkms && !installation.registrations.empty()) {
    report.add(
        "dkms-order",
        "Line " + std::to_string(sources) +
            " of the manifest deletes the DKMS sources before line " + std::to_string(dkms) +
            " removes the module from DKMS.",
        place_of(dkms),
        shell_command("sed -i -e '/^DKMS /d' -e '1i DKMS valta ' %", {kUninstallManifestPath}));
  }
}

bool has_upper_case_digest(const Installation& installation) {
  return std::any_of(installation.entries.begin(), installation.entries.end(),
                     [](const ManifestEntry& entry) {
                       return !is_md5(entry.digest) && is_md5(lower_case(entry.digest));
                     });
}

/// Why the manifest has no text.
std::string state_of_manifest() {
  struct stat status {};
  if (stat(kUninstallManifestPath, &status) != 0) {
    return "is missing";
  }
  return S_ISREG(status.st_mode) ? "is empty or cannot be read" : "is not a regular file";
}

/// Whether `path` is in a directory of the stack, or in one of the system where it installs files.
bool is_inside(const std::string& path, const Installation& installation) {
  return is_below(path, installation.root) || is_in_unit_directory(path) ||
         path.starts_with("/etc/mod") || path.starts_with(kDkmsSourcePrefix);
}

}  // namespace

void look_at_manifest_as_a_whole(const Installation& installation, Report& report) {
  const auto has = [&](char c) {
    return std::any_of(installation.lines.begin(), installation.lines.end(),
                       [c](const std::string& line) { return line.find(c) != std::string::npos; });
  };
  if (installation.lines.empty()) {
    if (path_exists(installation.root) || lexists(kUninstallManifestPath)) {
      report.add("manifest-missing",
                 "The uninstall manifest " + state_of_manifest() +
                     ", so a run leaves files, links and services. Install the stack again for a "
                     "new one, or delete what is left by hand.",
                 kUninstallManifestPath,
                 copy_and_delete(path_exists(installation.root) ? installation.root
                                                                : kUninstallManifestPath));
    }
  } else if (has('\r') || has('\t')) {
    report.add("manifest-format",
               std::string("The manifest has ") + (has('\r') ? "carriage returns" : "tabs") +
                   ", which become part of names and digests.",
               kUninstallManifestPath,
               shell_command(R"(sed -i 's/\r$//; s/\t/ /g' %)", {kUninstallManifestPath}));
  } else if (has_upper_case_digest(installation)) {
    report.add(
        "manifest-digests",
        "Digests in the manifest are in upper case, so their files count as changed.",
        kUninstallManifestPath,
        shell_command(R"(sed -i -E 's/ [0-9A-Fa-f]{32}$/\L&/' %)", {kUninstallManifestPath}));
  }
}

void look_at_manifest(const Installation& installation, Report& report) {
  look_at_manifest_as_a_whole(installation, report);
  if (!has_finding(report, "manifest-format")) {  // from which all else follows
    look_at_lines_that_stop(installation, report);
    look_at_lines(installation, report);
    look_at_order(installation, report);
  }
}

void look_at_outside_entries(const Installation& installation, Report& report) {
  std::vector<std::string> outside;
  std::string list;
  for (const ManifestEntry& entry : installation.entries) {
    if (names_path(entry.type) && entry.path.starts_with('/') && lexists(entry.path) &&
        !is_inside(entry.path, installation)) {
      outside.push_back(entry.path);
      list.append(" ").append(shell_quoted(entry.path).value_or(""));
    }
  }
  if (!outside.empty()) {
    report.add("entry-outside",
               "The manifest names " + counted(outside.size(), "path") + " outside of " +
                   installation.root +
                   " and the other directories of the stack: " + some_of(outside) + ".",
               outside.front(), "ls -ld" + list);
  }
}

}  // namespace valta::inspect
