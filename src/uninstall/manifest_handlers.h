#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "uninstall/manifest.h"
#include "uninstall/result_code.h"

namespace valta {

/// Removes what one manifest entry names.
using ManifestHandler = ResultCode (*)(const ManifestEntry&);

/// The handler of each type keyword.
extern const std::unordered_map<std::string, ManifestHandler> ManifestHandlers;

/// What the second field of a manifest line names.
enum class EntryTarget { prefix, file, link, directory, unit, dkms_module };

/// What an entry of the type `keyword` names; nothing for a type without handler.
[[nodiscard]] std::optional<EntryTarget> target_of(const std::string& keyword);

/// Whether an entry of the type `keyword` names a path that a run may delete.
[[nodiscard]] bool names_path(const std::string& keyword);

/// Hands every entry, in order, to the handler of its type.
///
/// Stops at the first entry that fails and returns its code: later entries are not visited, earlier
/// ones stay handled. A type without handler fails with `failure` and a line on standard output,
/// past the log. Returns success when every entry was done, skipped or tolerated, and then tells
/// the administrator (Print) if changed files were kept. Passes on what a handler throws.
[[nodiscard]] ResultCode ProcessManifestEntries(const std::vector<ManifestEntry>& entries);

}  // namespace valta
