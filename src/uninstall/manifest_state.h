#pragma once

#include <string>
#include <unordered_map>

namespace valta {

// The shared state of the handlers of manifest entries. It exists for the whole run, so a second
// pass over the manifest has the state of the first one. Plain data of a single-threaded program.

/// The installation prefix; empty until a "VALTA" entry sets it.
inline std::string InstalledPath;

/// Whether a file was kept because it changed. Cleared at the start of every pass.
inline bool ChangedFileFound = false;

/// Path to digest, possibly empty. Never cleared: a file that changes during the run keeps the
/// digest it was first seen with.
inline std::unordered_map<std::string, std::string> DigestCache;

}  // namespace valta
