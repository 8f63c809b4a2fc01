#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/report/finding_table.h"

namespace valta::inspect {

/// What the program was asked for.
enum class Command { before, after };

/// What a run comes to, the good ones first.
enum class Outcome {
  done,          ///< all that could be removed is gone
  clean,         ///< nothing was there
  kept,          ///< changed files stay
  shared,        ///< files stay for the toolkit or for the program
  busy,          ///< a module is in use
  failed,        ///< something that had to go is still there
  nothing_done,  ///< the run ended before it did anything
  unfinished,    ///< the run did not come to its end
  unknown,       ///< there is nothing to judge by
};

/// One thing to know about the host or the run, and what to do about it.
struct Finding {
  FindingId id;
  Severity severity;
  std::string text;   ///< a sentence
  std::string where;  ///< a path or a name; may be empty
  std::string next;   ///< a command to type, of the kind that the table has for `id`; may be empty
};

enum class FileKind { file, link, directory, other };

/// A file system object that is gone.
struct Removal {
  std::string path;
  FileKind kind;
  bool is_listed = false;  ///< in the manifest, or as the file of a unit of it
};

/// Why a path of the manifest stays.
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

/// What a dry run did with a unit, or what systemd says of it afterwards.
enum class UnitState { disabled, stopped, refused, active, known, unknown, untold };

struct Service {
  std::string unit;
  UnitState state;
};

/// What DKMS has left of a version.
enum class DkmsState { registered, sources };

struct DkmsVersion {
  std::string version;
  DkmsState state;
};

/// What a run could not do, by its messages.
enum class FailureKind {
  removal,        ///< a path could not be deleted
  configuration,  ///< the same for a configuration path
  directory,      ///< a DIR entry could not be looked at
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

/// All that one call of the program has to say.
struct Report {
  Command command = Command::before;
  Outcome outcome = Outcome::unknown;
  std::string reason;         ///< a sentence; may be empty
  std::optional<int> status;  ///< what the run ended with, or would end with
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

/// Whether a run with this outcome succeeds, with or without something that stays.
[[nodiscard]] bool succeeds(Outcome outcome);

/// The exit status for `report`: 0, 1 for a run that succeeds and keeps something, 2 for one that
/// does not succeed, 3 when there was nothing to judge by. Of a run to come, findings decide, too.
[[nodiscard]] int exit_status(const Report& report);

}  // namespace valta::inspect
