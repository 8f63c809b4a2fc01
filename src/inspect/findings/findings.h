#pragma once

#include <string>
#include <vector>

#include "inspect/host/installation.h"
#include "inspect/report/report.h"

namespace valta::inspect {

// Opinions about a host, as findings of a report. Nothing is changed, and nothing is executed but
// `systemctl status`, `md5sum` and the lister of an initial ramdisk, where that is said.

/// What makes a run fail, or keep what it could remove, as far as the host shows it without a run:
/// lines of the manifest, units that systemd would still know, instances without a line, missing
/// tools, versions that DKMS has elsewhere or without sources, a log that is a link or has no room,
/// a run that goes on.
void look_at_obstacles(const Installation& installation, Report& report);

/// What else is worth knowing before a run: what of the manifest is outside of the stack's
/// directories, tools that are not the system's, files that others may write to, mounts at the
/// configuration paths, an initial ramdisk that holds a module (by its lister).
void look_at_surroundings(const Installation& installation, Report& report);

/// What the run of `report` removes that no digest protects.
void look_at_unseen(const Installation& installation, Report& report);

/// Who uses the stack's modules of the list `modules`: other modules by name, except those that a
/// run unloads itself, and processes that have a device of the module open or mapped, as far as the
/// kernel says whose device that is. Other users are counted.
void look_at_module_users(const std::string& modules, const Installation& installation,
                          Report& report);

/// The commands that a dry run waited for when its `timeout`, in seconds, was over. Sets the
/// outcome, too.
void look_at_hanging(const std::vector<std::string>& commands, int timeout, Report& report);

/// A host that did not answer within `seconds`: the step that it kept this program from, and the
/// file systems that do not answer. Sets the outcome, too.
void look_at_silence(int seconds, Report& report);

/// Why the log could not be opened for writing.
void look_at_refused_log(Report& report);

/// The directories and mount points `unlike_host`, where a dry run did not have what the host has,
/// as far as a run would work there.
void look_at_uncertainty(const std::vector<std::string>& unlike_host,
                         const Installation& installation, Report& report);

/// Why the run of `report` could not do what its messages say, as the host shows it now; when it
/// shows no reason for a run that fails, that there is one in the log.
void look_at_failures(Report& report);

/// Brings `kept` to what of the manifest is there: the reasons that the run gave stand in it, what
/// it gave none for is added as `left`.
void settle_kept(const Installation& installation, Report& report);

/// What a run that came to its end has left: of the manifest (`kept`, by `md5sum` where the run
/// could not compare), of DKMS (`dkms`), links of units that are gone, configuration.
void look_at_remains(const Installation& installation, Report& report);

/// What only the host itself shows after a run: which units systemd still knows, and which are
/// active (`services`, by `systemctl status`), instances without a line, loaded modules.
void look_at_host_after(const Installation& installation, Report& report);

/// That a run which did not do all of its work has to be repeated, if anything is left for it.
void look_at_unfinished(const Installation& installation, Report& report);

}  // namespace valta::inspect
