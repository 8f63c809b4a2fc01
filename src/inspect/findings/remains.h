#pragma once

#include <string>

#include "inspect/host/installation.h"
#include "inspect/report/report.h"

namespace valta::inspect {

/// Adds to `report` what is left of `installation` after a run: of the manifest (`kept`, where the
/// reasons that the run gave stand already), of DKMS (`dkms`), links of units that are gone,
/// configuration; with a finding for each and what to type.
void look_at_remains(const Installation& installation, Report& report);

/// The same for a run that was cut off, or did not come to the manifest: it has to be run again.
void tell_to_run_again(const Installation& installation, Report& report);

/// Asks systemd on this host which units of `installation` it still knows, and which are active:
/// `services`, and a finding for each. Where systemd does not answer, their state is "untold".
void look_at_known_units(const Installation& installation, Report& report);

/// Tells which of the stack's modules are loaded on this host.
void look_at_loaded_modules(Report& report);

}  // namespace valta::inspect
