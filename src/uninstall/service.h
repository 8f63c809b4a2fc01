#pragma once

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Handles a "SERVICE" entry, whose path is a systemd unit name: disables and stops the unit,
/// deletes its file from /lib/systemd/system if the digest is still the recorded one, makes systemd
/// forget the unit, and for a template stops the slice of its instances.
///
/// The digest that `DigestCache` holds for the unit file counts first. Where it holds none, an
/// empty digest counts as the recorded one: `SERVICE a` with two spaces at its end deletes the unit
/// file even if it was changed, but `SERVICE a` has the digest "a" and keeps it. Logs each step and
/// its outcome.
///
/// Returns `tolerated` inside a container, where nothing is done; success when systemd no longer
/// knows the unit, or when its file was changed and so kept (console and log say so); else
/// `service_remains`. `DigestCache` has an entry for the unit file afterwards, if the file existed:
/// an empty one unless it was there before.
[[nodiscard]] ResultCode HandleServiceEntry(const ManifestEntry& entry);

}  // namespace valta
