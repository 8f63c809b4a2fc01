#pragma once

#include <string>

#include "inspect/archive/record.h"
#include "inspect/report/report.h"

namespace valta::inspect {

/// The file with the record of the archive `file`.
[[nodiscard]] inline std::string record_of(const std::string& file) { return file + ".state"; }

/// Writes the manifest, and everything that the run predicted by `report` would remove or change,
/// to the archive `file`, and its record beside it. Only root can read both. They are on the disk
/// before this returns, appear only when they are complete, and replace no file. The module
/// dependency data is left out, because depmod creates it. Throws `ArchiveError`, for example if
/// the disk is full, if a path changes meanwhile, or if this host has no tar that keeps extended
/// attributes and ACLs.
Record save(const std::string& file, const Report& report);

/// The path of the manifest, which `save` adds. Links in its directory are resolved.
[[nodiscard]] std::string path_of_manifest();

/// Whether this host has a tar that keeps extended attributes and ACLs.
[[nodiscard]] bool can_save();

/// Throws `ArchiveError` if the archive `file` is not the one of `record`.
void check_sum(const std::string& file, const Record& record);

/// The content that the regular file at `path` has in the archive `file`.
[[nodiscard]] std::string content_in(const std::string& file, const std::string& path);

/// Restores all paths of the archive `file` that can be restored, but not `kept`, which may be
/// empty. Throws `ArchiveError` with the message of tar if one of them could not be.
void extract(const std::string& file, const std::string& kept);

/// Writes `text` to a new file `path` in the same way as `save`.
void write_new_file(const std::string& path, const std::string& text);

}  // namespace valta::inspect
