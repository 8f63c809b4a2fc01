#pragma once

#include <string>

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// The directory where the stack's installer unpacks the sources of a version; the version follows.
/// It does not depend on the source tree of DKMS.
inline const std::string kDkmsSourcePrefix = "/usr/src/valta-";

/// Whether `path`, in the DKMS tree of a module, is a version of it: DKMS keeps links beside the
/// version directories, and a version has its sources or a link to them.
[[nodiscard]] bool is_version_directory(const std::string& path);

/// Removes every version of the driver's DKMS module that DKMS knows, with `dkms remove`, and its
/// source tree under /usr/src. The argument is ignored, because there is only one module.
///
/// Returns `dkms_missing` when `dkms` is not on the search path, and `dkms_failed` at the first
/// version whose removal failed; earlier ones are removed. A failed `dkms remove` is reported on
/// standard output, everything else in the log.
[[nodiscard]] ResultCode RemoveDkmsModule(const std::string& path);

/// Handles a "DKMS" entry with `RemoveDkmsModule`. Inside a container, and on a host without DKMS,
/// there is nothing to remove: success.
[[nodiscard]] ResultCode HandleDkmsEntry(const ManifestEntry& entry);

}  // namespace valta
