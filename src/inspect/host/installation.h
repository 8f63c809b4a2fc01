#pragma once

#include <string>
#include <vector>

#include "uninstall/manifest.h"

namespace valta::inspect {

/// What the stack's installer left on this host, by the uninstall manifest and DKMS.
struct Installation {
  std::vector<std::string> lines;          ///< of the manifest; none when it is missing or empty
  std::vector<ManifestEntry> entries;      ///< one for each line
  std::string root;                        ///< of its last VALTA line, or the default
  std::vector<std::string> units;          ///< of its SERVICE entries
  std::vector<std::string> registrations;  ///< the versions that DKMS has, as paths
};

/// Reads the manifest and the state of DKMS. In a container, where a run leaves units and DKMS
/// alone, there are none of either.
[[nodiscard]] Installation read_installation();

/// Where the installer put the uninstaller.
[[nodiscard]] std::string installed_program(const Installation& installation);

}  // namespace valta::inspect
