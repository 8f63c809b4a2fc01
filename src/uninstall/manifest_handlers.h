#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Removes the object of one manifest entry.
using ManifestHandler = ResultCode (*)(const ManifestEntry&);

/// The handler of each type keyword.
extern const std::unordered_map<std::string, ManifestHandler> ManifestHandlers;

/// The kind of object in the second field of a manifest line.
enum class EntryTarget { prefix, file, link, directory, unit, dkms_module };

/// The kind of object in an entry of the type `keyword`; nothing for a type without handler.
[[nodiscard]] std::optional<EntryTarget> target_of(const std::string& keyword);

/// Whether an entry of the type `keyword` names a path that a run may delete.
[[nodiscard]] bool names_path(const std::string& keyword);

/// Hands every entry, in order, to the handler of its type.
///
/// Stops at the first entry that fails and returns its code. A type without handler fails with
/// `failure` and a line on standard output, which is not logged. Returns success if every entry was
/// done, skipped or tolerated, and then logs at Print if changed files were kept. Does not catch
/// the exceptions of handlers.
[[nodiscard]] ResultCode ProcessManifestEntries(const std::vector<ManifestEntry>& entries);

}  // namespace valta
