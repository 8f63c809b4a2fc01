#pragma once

#include <string>

#include "inspect/archive/record.h"
#include "inspect/report/report.h"

namespace valta::inspect {

/// The file with the record of the archive `file`.
[[nodiscard]] inline std::string record_of(const std::string& file) { return file + ".state"; }

/// Writes what the run that `report` predicts would remove or change to the archive `file`, and its
/// record beside it. Both are root's alone, are on the disk before this returns, and appear under
/// their names when they are whole; nothing is overwritten. The module dependency data is left out,
/// since depmod makes it. Throws `ArchiveError`, above all when the disk is full, when something
/// changes meanwhile, and when this host has no tar that keeps extended attributes and ACLs.
Record save(const std::string& file, const Report& report);

/// Whether this host has a tar that keeps extended attributes and ACLs.
[[nodiscard]] bool can_save();

/// Throws `ArchiveError` when the archive `file` is not the one that `record` was written with.
void check_sum(const std::string& file, const Record& record);

/// The content that the regular file at `path` has in the archive `file`.
[[nodiscard]] std::string content_in(const std::string& file, const std::string& path);

/// Puts all paths of the archive `file` back on this host. Throws `ArchiveError` with the words of
/// tar, which goes on as far as it can.
void extract(const std::string& file);

/// Writes `text` to a new file `path` in the same way as `save`.
void write_new_file(const std::string& path, const std::string& text);

}  // namespace valta::inspect
