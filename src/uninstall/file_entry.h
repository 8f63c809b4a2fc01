#pragma once

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Handles a "FILE" entry: deletes the file if its digest is still the recorded one.
///
/// A file that is missing, changed, or whose digest cannot be computed is skipped, logged, and
/// counts as success; a changed one also sets `ChangedFileFound`. The digest comes from
/// `DigestCache`, or is computed and stored there. Returns `file_failed` when an unchanged file
/// could not be deleted.
[[nodiscard]] ResultCode HandleFileEntry(const ManifestEntry& entry);

/// Handles an "RFILE" entry: like a "FILE" entry if neither the toolkit nor the driver is
/// installed. Otherwise logs that it is skipped, and succeeds.
[[nodiscard]] ResultCode HandleRfileEntry(const ManifestEntry& entry);

}  // namespace valta
