#pragma once

#include <string>
#include <vector>

#include "uninstall/manifest.h"

namespace valta::inspect {

/// The installation on this host, according to the uninstall manifest and DKMS.
struct Installation {
  std::vector<std::string> lines;          ///< of the manifest; none when it is missing or empty
  std::vector<ManifestEntry> entries;      ///< one for each line
  std::string root;                        ///< of its last VALTA line, or the default
  std::vector<std::string> units;          ///< of its SERVICE entries
  std::vector<std::string> registrations;  ///< the versions that DKMS has, as paths
};

/// Reads the manifest and the state of DKMS. In a container, a run skips units and DKMS, so both
/// lists are empty.
[[nodiscard]] Installation read_installation();

/// Where the installer put the uninstaller.
[[nodiscard]] std::string installed_program(const Installation& installation);

}  // namespace valta::inspect
