#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace valta::inspect {

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

/// "1 file", "2 files", "2 directories".
[[nodiscard]] std::string counted(std::size_t count, const std::string& thing);

/// The word for `outcome` in every output, without blanks.
[[nodiscard]] const char* name_of(Outcome outcome);

enum class Severity {
  blocks,  ///< a run does not succeed, or not wholly
  keeps,   ///< something stays that a run could have removed
  note,    ///< worth knowing
};

/// One thing to know about the host or the run, and what to do about it.
struct Finding {
  const char* id;  ///< for programs: it does not change with the words
  Severity severity;
  std::string text;     ///< a sentence
  std::string where;    ///< a path or a name; may be empty
  std::string command;  ///< what to type next; may be empty
};

/// A file system object that is gone.
struct Removal {
  std::string path;
  const char* kind;  ///< "file", "link", "directory" or "other"
};

/// A path of the manifest that stays, and why: "changed", "toolkit", "program", "not-compared",
/// "not-empty" or "left".
struct Kept {
  std::string path;
  const char* reason;
};

/// A name, of a unit or of a version, and how it stands.
struct State {
  std::string name;
  std::string state;
};

/// All that one call of the program has to say.
struct Report {
  const char* verb = "";
  Outcome outcome = Outcome::unknown;
  std::string reason;         ///< a sentence; may be empty
  std::optional<int> status;  ///< what the run ended with, or would end with
  std::string console;        ///< the run's standard error
  std::string output;         ///< the run's standard output
  std::string log;
  std::vector<Removal> removed;
  std::vector<std::string> written;
  std::vector<Kept> kept;
  std::vector<std::string> unloaded;
  std::vector<State> services;
  std::vector<State> dkms;
  std::vector<Finding> findings;
  double seconds = 0;

  void add(const char* id, Severity severity, std::string text, std::string where = "",
           std::string command = "");
};

/// The exit status for `report`: 0, 1 for a run that succeeds and keeps something, 2 for one that
/// does not succeed, 3 when there was nothing to judge by. Of a run to come, findings decide, too.
[[nodiscard]] int exit_status(const Report& report);

/// Prints `report` for programs: one JSON object, in ASCII, with a line end. Bytes that are not
/// UTF-8 become U+FFFD.
void print_json(const Report& report);

/// Prints `report` for people, 80 columns wide. What is many is counted, and listed when `verbose`.
/// Control characters, which a path may hold, are shown as "?".
void print_text(const Report& report, bool verbose);

}  // namespace valta::inspect
