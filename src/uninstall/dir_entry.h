#pragma once

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Handles a "DIR" entry: removes the directory if it is empty. Also removes an empty regular file
/// at this path, and a link to an empty directory without its target.
///
/// Logs the removal, or why the path is kept; logs nothing for a missing path. Always succeeds: a
/// directory never stops the uninstallation. Throws std::filesystem::filesystem_error when the
/// entry's status or its content cannot be read (a loop of links, a FIFO, a name too long).
[[nodiscard]] ResultCode HandleDirEntry(const ManifestEntry& entry);

}  // namespace valta
