#pragma once

#include <string>

#include "inspect/host/installation.h"
#include "inspect/report/report.h"

// The checks behind `findings.h`, each in the file of its subject.
namespace valta::inspect {

/// The directory where commands copy files before they delete them.
inline constexpr const char* kCopies = "/root/valta-kept";

/// Problems of the whole manifest, which prevent most of a run's work: it is missing, or its format
/// is wrong.
void look_at_manifest_as_a_whole(const Installation& installation, Report& report);
void look_at_manifest(const Installation& installation, Report& report);
void look_at_outside_entries(const Installation& installation, Report& report);

void look_at_unit(const std::string& unit, Report& report);
void look_at_units(const Installation& installation, Report& report);
void look_at_instances(const Installation& installation, Report& report);
void look_at_unit_links(const Installation& installation, Report& report);
void look_at_known_units(const Installation& installation, Report& report);

void look_at_missing_tools(const Installation& installation, Report& report);
void look_at_odd_tools(const Installation& installation, Report& report);
void look_at_listed_tools(const Installation& installation, Report& report);
void look_at_trust(Report& report);

void look_at_loaded_modules(Report& report);
void look_at_initrd(Report& report);

void look_at_odd_log(Report& report);
void look_at_log_space(Report& report);
void look_at_active_run(Report& report);

void look_at_dkms_versions(const Installation& installation, Report& report);
void look_at_dkms_remains(Report& report);

void look_at_mounted_configuration(Report& report);
void look_at_configuration(Report& report);

void look_at_kept(const Installation& installation, Report& report);

/// A command that puts a copy of `path` aside before it deletes it.
[[nodiscard]] std::string copy_and_delete(const std::string& path);

/// `command`, or nothing in a prediction: it is right only after the run.
[[nodiscard]] std::string after_run(const std::string& command, const Report& report);

/// Adds the finding that `what`, at `where`, is left, or would be, with a `command` for after the
/// run.
void add_left(FindingId id, const std::string& what, const std::string& where,
              const std::string& command, Report& report);

/// Why `path`, or something below it, cannot be deleted.
void explain_removal(const std::string& path, Report& report);

/// `command`, or nothing on a host without systemctl.
[[nodiscard]] std::string systemctl_command(const std::string& command);

}  // namespace valta::inspect
