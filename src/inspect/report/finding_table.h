#pragma once

#include <algorithm>
#include <array>
#include <string_view>

namespace valta::inspect {

enum class Severity {
  blocks,  ///< a run fails, does only a part of its work, or leaves no record of it
  keeps,   ///< something is left that a run could have removed
  note,    ///< worth knowing
};

/// Which commands report a finding.
enum class ToldBy { before, after, both };

/// How sure the command of a finding is.
enum class StepKind {
  look,    ///< it changes nothing
  mend,    ///< it fixes the problem, and nothing has to be decided
  decide,  ///< it deletes or changes something that a person may want
};

/// The properties of a finding that are the same on every host.
struct FindingRow {
  std::string_view id;  ///< for programs, with any wording
  Severity severity;    ///< the highest one, if it depends on the host
  StepKind kind;        ///< of its command
  ToldBy told_by;
  std::string_view meaning;  ///< as in the manual page
};

/// All findings, sorted by their ids.
inline constexpr auto kFindingTable = std::to_array<FindingRow>({
    {"cannot-remove", Severity::blocks, StepKind::mend, ToldBy::both,
     "A path cannot be deleted because it is a mount point, or because it or its directory is "
     "immutable."},
    {"configuration-left", Severity::keeps, StepKind::mend, ToldBy::both,
     "One of the six configuration paths is left."},
    {"configuration-mounted", Severity::blocks, StepKind::mend, ToldBy::before,
     "A file system is mounted at or below a configuration path: a run deletes its files."},
    {"depmod-fails", Severity::blocks, StepKind::mend, ToldBy::both,
     "depmod fails, so the module dependency data is not refreshed."},
    {"directory-empty", Severity::keeps, StepKind::mend, ToldBy::both,
     "A directory of the manifest is left. It is empty, or holds only kept paths."},
    {"directory-stays", Severity::keeps, StepKind::look, ToldBy::both,
     "A directory of the manifest still holds something that is not in the manifest."},
    {"dkms-broken", Severity::blocks, StepKind::mend, ToldBy::both,
     "DKMS has a version without its sources, which dkms cannot remove."},
    {"dkms-fails", Severity::blocks, StepKind::look, ToldBy::both,
     "dkms fails to remove a version."},
    {"dkms-order", Severity::blocks, StepKind::mend, ToldBy::both,
     "The manifest deletes the DKMS sources before dkms removes the module."},
    {"dkms-registered", Severity::keeps, StepKind::mend, ToldBy::both,
     "DKMS still has a version of the module."},
    {"dkms-sources", Severity::keeps, StepKind::mend, ToldBy::both,
     "Sources of the module are left in /usr/src, and DKMS does not know their version."},
    {"dkms-tree", Severity::keeps, StepKind::mend, ToldBy::both,
     "DKMS has a version in a tree where a run does not look."},
    {"entry-outside", Severity::note, StepKind::look, ToldBy::before,
     "The manifest names paths outside of the directories of the stack."},
    {"entry-tool", Severity::blocks, StepKind::decide, ToldBy::before,
     "The manifest names a tool that the run itself needs."},
    {"file-changed", Severity::keeps, StepKind::decide, ToldBy::both,
     "A file was changed since its installation, so it is kept."},
    {"file-not-compared", Severity::keeps, StepKind::look, ToldBy::both,
     "The digest of a file cannot be compared, so the file is kept."},
    {"file-unchanged", Severity::keeps, StepKind::mend, ToldBy::both,
     "A run cannot compare a file because of its name, so the file is kept; it is unchanged."},
    {"hangs", Severity::blocks, StepKind::look, ToldBy::before,
     "The dry run was ended while it waited for a command."},
    {"initrd-holds", Severity::note, StepKind::mend, ToldBy::both,
     "The initial ramdisk of the running kernel holds a module of the stack, and a run does not "
     "rebuild it."},
    {"log-full", Severity::blocks, StepKind::look, ToldBy::both,
     "The file system of the log is full: a run does its work, but its log is lost."},
    {"log-odd", Severity::blocks, StepKind::mend, ToldBy::both,
     "The log is a link: a run overwrites the file that it points to."},
    {"log-refused", Severity::blocks, StepKind::look, ToldBy::both,
     "The log cannot be opened for writing, so a run does nothing."},
    {"manifest-digests", Severity::keeps, StepKind::mend, ToldBy::both,
     "Digests in the manifest are in upper case, so their files count as changed."},
    {"manifest-format", Severity::blocks, StepKind::mend, ToldBy::both,
     "The manifest has carriage returns or tabs, which become part of names and digests."},
    {"manifest-left", Severity::keeps, StepKind::look, ToldBy::both,
     "A path of the manifest is left, and the log has no reason for it."},
    {"manifest-line", Severity::keeps, StepKind::look, ToldBy::both,
     "A line of the manifest is malformed."},
    {"manifest-missing", Severity::blocks, StepKind::decide, ToldBy::both,
     "The stack is installed, but the manifest is missing, empty, or not a regular file."},
    {"manifest-type", Severity::blocks, StepKind::decide, ToldBy::both,
     "A run stops at a line of the manifest that it cannot process."},
    {"module-built", Severity::keeps, StepKind::mend, ToldBy::both,
     "A built module is left below /lib/modules."},
    {"module-held", Severity::blocks, StepKind::decide, ToldBy::both,
     "A module is in use: by another module, by a process that has one of its devices open or "
     "mapped, or by a user that the kernel does not identify."},
    {"module-loaded", Severity::keeps, StepKind::mend, ToldBy::after,
     "A module of the stack is loaded."},
    {"module-stuck", Severity::blocks, StepKind::look, ToldBy::both,
     "rmmod fails to unload a module."},
    {"module-users", Severity::blocks, StepKind::look, ToldBy::both,
     "A module has users that the kernel does not identify."},
    {"modules-missing", Severity::note, StepKind::look, ToldBy::both,
     "There are no modules of the running kernel, such as in a container, so depmod has nothing to "
     "refresh."},
    {"mount-silent", Severity::blocks, StepKind::look, ToldBy::both,
     "A file system does not answer."},
    {"program-kept", Severity::keeps, StepKind::mend, ToldBy::both,
     "Shared paths are kept for the installed copy of the uninstaller."},
    {"read-only", Severity::blocks, StepKind::look, ToldBy::both,
     "A path cannot be deleted because its file system is read-only."},
    {"removal-fails", Severity::blocks, StepKind::look, ToldBy::both, "A path cannot be deleted."},
    {"run-active", Severity::blocks, StepKind::look, ToldBy::both, "The uninstaller is running."},
    {"run-again", Severity::keeps, StepKind::mend, ToldBy::after,
     "The run did not do all of its work: run the uninstaller again once the cause is fixed."},
    {"run-fails", Severity::blocks, StepKind::look, ToldBy::both,
     "A run fails, and the reason is in its log."},
    {"shared-kept", Severity::keeps, StepKind::look, ToldBy::both,
     "Shared paths are kept for the toolkit."},
    {"systemd-missing", Severity::blocks, StepKind::mend, ToldBy::both,
     "systemd is not running, so the first SERVICE entry ends a run."},
    {"tool-missing", Severity::blocks, StepKind::look, ToldBy::both,
     "A tool that a run calls is not in PATH."},
    {"tool-odd", Severity::note, StepKind::look, ToldBy::before,
     "A tool comes from a directory that is not the system's."},
    {"trust", Severity::note, StepKind::look, ToldBy::before,
     "Users other than root may write to a file that controls what root deletes."},
    {"uncertain", Severity::blocks, StepKind::look, ToldBy::before,
     "A run would change paths that the dry run does not see as they are on the host."},
    {"unit-active", Severity::keeps, StepKind::mend, ToldBy::after,
     "A unit of the manifest is active."},
    {"unit-changed", Severity::keeps, StepKind::decide, ToldBy::both,
     "A unit file was changed or could not be compared, so it is kept; its unit is disabled and "
     "stopped."},
    {"unit-copied", Severity::blocks, StepKind::decide, ToldBy::both,
     "A unit has a file in another directory than that of the installation, so systemd still knows "
     "it after a run."},
    {"unit-generated", Severity::blocks, StepKind::look, ToldBy::both,
     "systemd generates a unit, so it still knows the unit after a run."},
    {"unit-instance", Severity::keeps, StepKind::decide, ToldBy::both,
     "An instance of a template is enabled or runs, and has no line in the manifest."},
    {"unit-known", Severity::keeps, StepKind::look, ToldBy::after,
     "systemd still knows a unit of the manifest."},
    {"unit-link", Severity::keeps, StepKind::mend, ToldBy::both,
     "A link to a removed unit is left in /etc/systemd/system."},
    {"unit-linked", Severity::blocks, StepKind::mend, ToldBy::both,
     "A unit is linked from another directory, so systemd still knows it after a run."},
    {"unit-masked", Severity::blocks, StepKind::mend, ToldBy::both,
     "A unit is masked, so systemd still knows it after a run."},
    {"unit-name", Severity::blocks, StepKind::look, ToldBy::both,
     "The name of a unit has a character that is special to the shell."},
    {"unit-refuses", Severity::blocks, StepKind::mend, ToldBy::both,
     "A unit refuses to be stopped by hand, so systemd still knows it after a run."},
    {"unit-template", Severity::blocks, StepKind::mend, ToldBy::both,
     "A SERVICE entry names a template without an instance, so its instances keep running."},
    {"unseen", Severity::note, StepKind::mend, ToldBy::before,
     "A path is deleted even if it was changed."},
});
static_assert(std::is_sorted(kFindingTable.begin(), kFindingTable.end(),
                             [](const auto& a, const auto& b) { return a.id < b.id; }));

/// The id of a row of the table; any other text does not compile.
class FindingId {
 public:
  // NOLINTNEXTLINE(google-explicit-constructor): where a finding is added, its id is a plain text.
  // cppcheck-suppress noExplicitConstructor
  consteval FindingId(const char* id)
      : row_(std::find_if(kFindingTable.begin(), kFindingTable.end(),
                          [id](const FindingRow& row) { return row.id == id; })) {
    static_cast<void>(*row_);  // past the end for an unknown id, which is no constant
  }

  [[nodiscard]] constexpr const FindingRow& row() const { return *row_; }
  friend bool operator==(FindingId, FindingId) = default;

 private:
  const FindingRow* row_;
};

}  // namespace valta::inspect
