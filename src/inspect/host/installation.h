#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "uninstall/manifest.h"

namespace valta::inspect {

/// Where the stack's installer unpacks the sources of a version for DKMS.
inline constexpr std::string_view kSourcePrefix = "/usr/src/valta-";

/// What the uninstall manifest says, for those who look without handling it.
struct Installation {
  std::vector<std::string> lines;          ///< none when it is missing, or empty
  std::vector<ManifestEntry> entries;      ///< one for each line
  std::string root;                        ///< of its VALTA line, or the default
  std::vector<std::string> units;          ///< of its SERVICE entries
  std::vector<std::string> registrations;  ///< the versions that DKMS has, as paths
};

/// Reads the manifest and the state of DKMS. In a container, where a run leaves them alone, there
/// are no units and no registrations.
[[nodiscard]] Installation read_installation();

/// Where the program has its own place.
[[nodiscard]] std::string program_in_place(const Installation& installation);

/// The versions that DKMS has of the module, as paths, in whatever tree it was told to keep them.
[[nodiscard]] std::vector<std::string> dkms_registrations();

/// The trees that the configuration of DKMS names: of framework.conf first, the default if there is
/// none, then those of framework.conf.d.
[[nodiscard]] std::vector<std::string> dkms_trees();

/// The names of the driver's modules and of their companions.
[[nodiscard]] std::vector<std::string> stack_modules();

/// The names in `directory`, sorted; none when it cannot be read.
[[nodiscard]] std::vector<std::string> names_in(const std::string& directory);

/// The first few of `names`, with commas, and how many more there are.
[[nodiscard]] std::string some_of(const std::vector<std::string>& names);

/// The paths below `directory`, itself not included, directories too, sorted. What may not be read
/// is left out.
[[nodiscard]] std::vector<std::string> paths_below(const std::string& directory);

}  // namespace valta::inspect
