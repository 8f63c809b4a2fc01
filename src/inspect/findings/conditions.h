#pragma once

#include "inspect/host/installation.h"
#include "inspect/report/report.h"

namespace valta::inspect {

// What a host says without a run, each as findings. Nothing is executed, and nothing is changed.

/// Lines of the manifest that do not say what they seem to say, or come in an unlucky order; and a
/// manifest that is missing where something is installed.
void look_at_manifest(const Installation& installation, Report& report);

/// Units that systemd still knows when their file is gone.
void look_at_units(const Installation& installation, Report& report);

/// Instances, enabled or running, that the manifest does not name. Tells of those that a run left,
/// too.
void look_at_instances(const Installation& installation, Report& report);

/// Tools that are missing, or not the system's own; systemd, where it does not run; a DKMS tree
/// where a run does not look.
void look_at_tools(const Installation& installation, Report& report);

/// A file system without room for the log.
void look_at_log_space(Report& report);

/// Files and directories that decide what root deletes, and that others may write to.
void look_at_trust(Report& report);

/// What goes without a look at its content, with what it holds.
void look_at_unseen(const Installation& installation, Report& report);

}  // namespace valta::inspect
