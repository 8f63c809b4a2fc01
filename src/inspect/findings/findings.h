#pragma once

#include <string>
#include <vector>

#include "inspect/host/installation.h"
#include "inspect/report/report.h"

namespace valta::inspect {

// Checks of a host that add findings to a report. They change nothing. They execute only `systemctl
// status`, `md5sum` and the lister of an initial ramdisk, where a comment says so.

/// Problems that make a run fail, or keep a path that it could remove, found without a run: lines
/// of the manifest, units that systemd would still know, instances without a line, missing tools,
/// versions that DKMS has elsewhere or without sources, a log that is a link or has no space, an
/// active run.
void look_at_obstacles(const Installation& installation, Report& report);

/// Other facts to know before a run: paths of the manifest outside of the stack's directories,
/// tools that are not the system's, files that other users may write to, mounts at the
/// configuration paths, an initial ramdisk that holds a module (by its lister).
void look_at_surroundings(const Installation& installation, Report& report);

/// The paths that the run of `report` removes without comparing a digest.
void look_at_unseen(const Installation& installation, Report& report);

/// The users of the stack's modules in the list `modules`: other modules, except those that a run
/// unloads itself, and processes that have a device of the module open or mapped, if the kernel
/// names the module of the device. Counts all other users.
void look_at_module_users(const std::string& modules, const Installation& installation,
                          Report& report);

/// The commands that a dry run waited for when its `timeout`, in seconds, was over. Sets the
/// outcome, too.
void look_at_hanging(const std::vector<std::string>& commands, int timeout, Report& report);

/// A host that did not answer within `seconds`: the step that did not end, and the file systems
/// that do not answer. Sets the outcome, too.
void look_at_silence(int seconds, Report& report);

/// Why the log could not be opened for writing.
void look_at_refused_log(Report& report);

/// The directories and mount points `unlike_host`, which differ from the host in a dry run. Reports
/// only those where a run would change paths.
void look_at_uncertainty(const std::vector<std::string>& unlike_host,
                         const Installation& installation, Report& report);

/// The causes of the failures that the messages of a run report, as found on the host. If there is
/// none for a predicted failure, refers to the log.
void look_at_failures(Report& report);

/// Makes `kept` the list of all existing paths of the manifest. Keeps the reasons that the run
/// gave; a path without a reason is `left`.
void settle_kept(const Installation& installation, Report& report);

/// Everything that a completed run left: paths of the manifest (`kept`, with `md5sum` if the run
/// could not compare), DKMS versions (`dkms`), links to removed units, configuration.
void look_at_remains(const Installation& installation, Report& report);

/// The state after a run that its log does not have: units that systemd still knows or that are
/// active (`services`, with `systemctl status`), instances without a line, loaded modules.
void look_at_host_after(const Installation& installation, Report& report);

/// Advises to run again, if a run did not do all of its work and something is left.
void look_at_unfinished(const Installation& installation, Report& report);

}  // namespace valta::inspect
