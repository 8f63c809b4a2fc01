#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "inspect/findings/findings.h"
#include "inspect/findings/looks.h"
#include "inspect/host/digest.h"
#include "inspect/report/run_check.h"
#include "uninstall/manifest.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/shared_path.h"
#include "uninstall/unit_name.h"
#include "utils/files.h"
#include "utils/listing.h"
#include "utils/search_path.h"
#include "utils/shell.h"
#include "utils/text.h"
#include "utils/wording.h"

namespace valta::inspect {
namespace {

std::size_t count_kept(const Report& report, KeptReason reason) {
  return static_cast<std::size_t>(
      std::count_if(report.kept.begin(), report.kept.end(),
                    [&](const Kept& kept) { return kept.reason == reason; }));
}

void explain_shared(const Installation& installation, Report& report) {
  if (const auto shared = count_kept(report, KeptReason::toolkit); shared > 0) {
    const std::string marker = installation.root + "/" + kToolkitMarker;
    report.add(
        "shared-kept",
        "A run keeps " + counted(shared, "shared path") +
            " of the manifest for the toolkit. To delete shared paths, uninstall the toolkit.",
        marker, shell_command("ls -l %", {marker}));
  }
  if (const auto shared = count_kept(report, KeptReason::program); shared > 0) {
    const std::string program = installed_program(installation);
    if (!path_exists(program)) {
      return;
    }
    report.add(
        "program-kept",
        "A run keeps " + counted(shared, "shared path") +
            " of the manifest for the installed copy of the uninstaller. Move the copy away" +
            (report.command == Command::before ? "." : " and run the uninstaller again."),
        program, shell_command("mv % /root/", {program}));
  }
}

/// The digest that the manifest has for the file at `path`.
std::string recorded_digest(const Installation& installation, const std::string& path) {
  const auto entry =
      std::find_if(installation.entries.begin(), installation.entries.end(),
                   [&](const ManifestEntry& candidate) { return candidate.path == path; });
  return entry == installation.entries.end() ? "" : entry->digest;
}

/// Whether a finding about the whole manifest says why a file with the digest `recorded` is kept.
bool explained_by_manifest(const std::string& recorded, const Report& report) {
  return !is_md5(recorded) &&
         (has_finding(report, "manifest-format") ||
          (is_md5(lower_case(recorded)) && has_finding(report, "manifest-digests")));
}

void explain_unit_file(const std::string& path, Report& report) {
  const bool is_before = report.command == Command::before;
  report.add("unit-changed",
             path + " was changed or could not be compared, so a run keeps it. Its unit " +
                 (is_before ? "would be" : "is") + " disabled and stopped.",
             path, copy_and_delete(path) + systemctl_command(" && systemctl daemon-reload"));
}

/// Sets the reason of `kept` with a digest that is computed without a shell: any file name works.
void explain_file(Kept& kept, const std::string& recorded, Report& report) {
  const std::string& path = kept.path;
  const std::string digest = md5_of(path);
  kept.reason = KeptReason::not_compared;
  if (!is_md5(recorded) || digest.empty()) {
    if (!explained_by_manifest(recorded, report)) {
      const char* const cause = !find_in_path_executable("md5sum") ? "there is no md5sum"
                                : !is_md5(recorded) ? "the manifest has no MD5 digest for it"
                                                    : "md5sum cannot read it";
      report.add("file-not-compared", "A run keeps " + path + " because " + cause + ".", path,
                 shell_command("ls -l %", {path}));
    }
  } else if (digest == recorded) {
    const std::string complaint = complaint_of_md5sum(path);
    report.add("file-unchanged",
               path + " is unchanged, but a run cannot compare it because " +
                   (complaint.empty() ? "of its name" : "md5sum prints \"" + complaint + "\"") +
                   ", and keeps it.",
               path, after_run(shell_command("rm %", {path}), report));
  } else {
    kept.reason = KeptReason::changed;
    report.add("file-changed", path + " was changed since its installation, so a run keeps it.",
               path, copy_and_delete(path));
  }
}

/// Whether all that is in `directory` is a path of the manifest that has a finding of its own.
bool holds_only_kept(const std::string& directory, const std::set<std::string>& kept) {
  const std::vector<std::string> names = names_in(directory);
  return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
    return kept.contains(directory + "/" + name);
  });
}

void explain_directory(const std::string& path, const std::set<std::string>& kept, Report& report) {
  const std::vector<std::string> inside = names_in(path);
  if (!holds_only_kept(path, kept)) {
    report.add("directory-stays",
               "A run keeps " + path + " because it holds " + some_of(inside) + ".", path,
               shell_command("ls -lA %", {path}));
  } else {
    add_left("directory-empty",
             inside.empty() ? "The empty directory " + path
                            : path + ", which holds only " + some_of(inside) + ",",
             path, shell_command("rmdir %", {path}), report);
  }
}

void explain_left(const std::string& path, Report& report) {
  report.add("manifest-left",
             path + (report.command == Command::before
                         ? " would be left: its type differs from that of its entry."
                         : " is left: its type differs from that of its entry, or it was created "
                           "after the run."),
             path, shell_command("ls -ld %", {path}));
}

}  // namespace

std::string copy_and_delete(const std::string& path) {
  return shell_command(is_directory(path) ? "mkdir -p % && cp -a --parents % % && rm -r %"
                                          : "mkdir -p % && cp -a --parents % % && rm %",
                       {kCopies, path, kCopies, path});
}

void settle_kept(const Installation& installation, Report& report) {
  std::erase_if(report.kept, [](const Kept& kept) { return !lexists(kept.path); });
  std::set<std::string> known;
  for (const Kept& kept : report.kept) {
    known.insert(kept.path);
  }
  for (const ManifestEntry& entry : installation.entries) {
    if (names_path(entry.type) && entry.path.starts_with('/') && lexists(entry.path) &&
        known.insert(entry.path).second) {
      report.kept.push_back({entry.path, KeptReason::left});
    }
  }
}

void look_at_kept(const Installation& installation, Report& report) {
  settle_kept(installation, report);
  explain_shared(installation, report);
  std::set<std::string> paths;
  for (const Kept& kept : report.kept) {
    paths.insert(kept.path);
  }
  for (Kept& kept : report.kept) {
    const std::string recorded = recorded_digest(installation, kept.path);
    switch (kept.reason) {
      case KeptReason::changed:
      case KeptReason::not_compared:
        is_in_unit_directory(kept.path) && recorded.empty() ? explain_unit_file(kept.path, report)
                                                            : explain_file(kept, recorded, report);
        break;
      case KeptReason::not_empty:
        explain_directory(kept.path, paths, report);
        break;
      case KeptReason::left:
        is_directory(kept.path) && !is_symlink(kept.path)
            ? explain_directory(kept.path, paths, report)
            : explain_left(kept.path, report);
        break;
      default:  // shared paths are explained together
        break;
    }
  }
}

}  // namespace valta::inspect
