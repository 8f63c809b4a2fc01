#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace valta {

/// One line of the uninstall manifest. Any field may be empty.
struct ManifestEntry {
  std::string type;    ///< keyword, upper case, compared to the letter
  std::string path;    ///< absolute path; the prefix, unit or DKMS value for other types
  std::string digest;  ///< MD5 digest as `md5sum` prints it, where the type has one
};

/// Where the stack's installer leaves the manifest.
inline constexpr const char* kUninstallManifestPath =
    "/var/log/zephanorvalta/uninstall/.driver_uninstall_manifests";

/// Reads the manifest at `path`: its entries in file order, one for each line.
///
/// A missing file gives an empty list and a Warning; one that cannot be opened, or not be read to
/// its end, an empty list and a Debug line; an empty one an empty list. Lines are not checked: see
/// `parse_manifest` for malformed ones.
[[nodiscard]] std::vector<ManifestEntry> LoadUninstallManifests(const std::string& path);

/// The entries of a manifest's text: lines of `type path digest`, separated by one space, without
/// quoting or comments; a carriage return is part of the last field.
///
/// A short line fills the fields it lacks: "T P" gives (T, P, P), "T" gives (T, T, T), an empty
/// line three empty fields. Two spaces have an empty token between them. Tokens after the third are
/// dropped.
[[nodiscard]] std::vector<ManifestEntry> parse_manifest(std::string_view text);

/// Writes `lines`, each followed by "\n", to `path`, replacing its content. Creates the missing
/// parent directories. Returns false, with an Error line, when the file could not be written whole,
/// or when `path` holds a NUL byte, with nothing written.
[[nodiscard]] bool WriteUninstallManifest(const std::vector<std::string>& lines,
                                          const std::string& path);

}  // namespace valta
