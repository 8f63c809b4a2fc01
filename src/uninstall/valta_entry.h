#pragma once

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Handles a "VALTA" entry: its path is the installation prefix from now on. Logs it at Debug.
/// Always succeeds.
[[nodiscard]] ResultCode HandleValtaEntry(const ManifestEntry& entry);

}  // namespace valta
