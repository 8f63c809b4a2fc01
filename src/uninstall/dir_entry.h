#pragma once

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Handles a "DIR" entry: removes the directory if it is empty. An empty regular file in its place
/// goes as well, and so does a link to an empty directory, the link alone.
///
/// Logs what it did, and why an entry stays; a missing one is silent. Always succeeds: a directory
/// never stops the uninstallation. Throws std::filesystem::filesystem_error when the entry's status
/// or its emptiness cannot be told (a loop of links, a FIFO, a name too long).
[[nodiscard]] ResultCode HandleDirEntry(const ManifestEntry& entry);

}  // namespace valta
