#pragma once

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Handles a "SYMLINK" entry: deletes the link itself, never what it points to, and logs the
/// outcome.
///
/// A path that ends in "/lib" is shared by the toolkit and the driver and stays until neither is
/// installed. A path that is missing or no link is left alone without a message; both count as
/// success. Returns `link_failed` when the link could not be deleted.
[[nodiscard]] ResultCode HandleSymlinkEntry(const ManifestEntry& entry);

/// Handles an "RLINK" entry: as `HandleSymlinkEntry`, but every path is a shared one, and the code
/// on failure is `shared_link_failed`.
[[nodiscard]] ResultCode HandleRlinkEntry(const ManifestEntry& entry);

}  // namespace valta
