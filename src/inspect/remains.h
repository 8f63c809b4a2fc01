#pragma once

#include <string>

#include "inspect/installation.h"
#include "inspect/report.h"

namespace valta::inspect {

/// Adds to `report` what is left of `installation` below `root` after a run, "" for this host: of
/// the manifest (`kept`), of DKMS (`dkms`), links of units that are gone, configuration; with a
/// finding for each and what to type. `report.kept` has the reasons that the run gave.
///
/// A run that did not come as far as the manifest has left all of it: that is one finding.
void look_at_remains(const std::string& root, const Installation& installation, Report& report);

/// Asks systemd on this host which units of `installation` it still knows, and which are active:
/// `services`, and a finding for each.
void look_at_known_units(const Installation& installation, Report& report);

/// Tells which of the stack's modules are loaded on this host.
void look_at_loaded_modules(Report& report);

}  // namespace valta::inspect
