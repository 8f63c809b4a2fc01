#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/report/finding_table.h"

namespace valta::inspect {

/// The command of the program.
enum class Command { before, after };

/// The result of a run, successes first.
enum class Outcome {
  done,          ///< everything that could be removed is removed
  clean,         ///< there was nothing to remove
  kept,          ///< changed files are kept
  shared,        ///< files are kept for the toolkit or the installed copy
  busy,          ///< a module is in use
  failed,        ///< something that had to be removed is left
  nothing_done,  ///< the run ended before it did anything
  unfinished,    ///< the run did not complete
  unknown,       ///< the result cannot be determined
};

/// A fact about the host or the run, and a command for it.
struct Finding {
  FindingId id;
  Severity severity;
  std::string text;   ///< a sentence
  std::string where;  ///< a path or a name; may be empty
  std::string next;   ///< a command to type, of the kind that the table has for `id`; may be empty
};

enum class FileKind { file, link, directory, other };

/// A removed path.
struct Removal {
  std::string path;
  FileKind kind;
  bool is_listed = false;  ///< in the manifest, or as the file of a unit of it
};

/// Why a path of the manifest is kept or left.
enum class KeptReason {
  changed,
  toolkit,
  program,
  not_compared,
  not_empty,
  left,  ///< the run gave no reason
};

struct Kept {
  std::string path;
  KeptReason reason;
};

/// The action of a dry run on a unit, or the state of the unit after a run.
enum class UnitState { disabled, stopped, refused, active, known, unknown, untold };

struct Service {
  std::string unit;
  UnitState state;
};

/// What is left of a DKMS version.
enum class DkmsState { registered, sources };

struct DkmsVersion {
  std::string version;
  DkmsState state;
};

/// A failed step of a run, according to its messages.
enum class FailureKind {
  removal,        ///< a path could not be deleted
  configuration,  ///< the same for a configuration path
  directory,      ///< a DIR entry could not be read
  unit,           ///< systemd still knows it
  dkms,           ///< `dkms remove` of a version failed
  dkms_sources,   ///< the sources of a version could not be deleted
  entry_type,     ///< of the manifest, not known
  manifest,       ///< an entry of it stopped the run
  module,         ///< `rmmod` failed
  depmod,
};

struct Failure {
  FailureKind kind;
  std::string object;  ///< the path, unit, version, type or module
  std::string words;   ///< of the tool or the library that failed; may be empty
};

/// The complete result of one call of the program.
struct Report {
  Command command = Command::before;
  Outcome outcome = Outcome::unknown;
  std::string reason;         ///< a sentence; may be empty
  std::optional<int> status;  ///< of the run, or of the predicted run
  std::string console;        ///< the run's standard error
  std::string output;         ///< the run's standard output
  std::string log;
  std::vector<Failure> failures;
  std::vector<Removal> removed;
  std::vector<std::string> written;
  std::vector<Kept> kept;
  std::vector<std::string> unloaded;
  std::vector<Service> services;
  std::vector<DkmsVersion> dkms;
  std::vector<Finding> findings;
  double seconds = 0;

  /// Adds a finding, unless it is there already, with the severity that the table has for it.
  void add(FindingId id, std::string text, std::string where = "", std::string next = "");
  /// The same for one whose severity depends on the host.
  void add(FindingId id, Severity severity, std::string text, std::string where = "",
           std::string next = "");
};

// The words for these in every output.
[[nodiscard]] const char* name_of(Command command);
[[nodiscard]] const char* name_of(Outcome outcome);
[[nodiscard]] const char* name_of(Severity severity);
[[nodiscard]] const char* name_of(StepKind kind);
[[nodiscard]] const char* name_of(FileKind kind);
[[nodiscard]] const char* name_of(KeptReason reason);
[[nodiscard]] const char* name_of(UnitState state);
[[nodiscard]] const char* name_of(DkmsState state);

/// Whether `report` has a finding `id`.
[[nodiscard]] bool has_finding(const Report& report, FindingId id);

/// Whether a run with this outcome succeeds, even if it keeps something.
[[nodiscard]] bool succeeds(Outcome outcome);

/// The exit status for `report`: 0, 1 for a run that succeeds and keeps something, 2 for one that
/// does not succeed, 3 if the result is unknown. For a predicted run, findings count, too.
[[nodiscard]] int exit_status(const Report& report);

}  // namespace valta::inspect
