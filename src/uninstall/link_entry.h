#pragma once

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Handles a "SYMLINK" entry: deletes the link itself, never its target, and logs the outcome.
///
/// A path that ends in "/lib" is shared by the toolkit and the driver, and is kept while either is
/// installed. A missing path, or one that is no link, is skipped without a message. Both count as
/// success. Returns `link_failed` when the link could not be deleted.
[[nodiscard]] ResultCode HandleSymlinkEntry(const ManifestEntry& entry);

/// Handles an "RLINK" entry: like `HandleSymlinkEntry`, but every path is a shared one, and the
/// code on failure is `shared_link_failed`.
[[nodiscard]] ResultCode HandleRlinkEntry(const ManifestEntry& entry);

}  // namespace valta
