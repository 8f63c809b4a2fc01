#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "throwaway_host.h"

namespace valta {

inline const std::string kClosing = "Driver uninstall log is in " + kLog + "\n";
inline const std::string kSucceeded = "Successfully uninstall driver.\n" + kClosing;
inline const std::string kFailed =
    "Uninstall valta driver zephanor failed.\nDriver uninstall failed.\n" + kClosing;

/// To prepare a host on which every file's digest is "digest".
inline const std::string kAnyDigest = "tool /usr/bin/md5sum 'echo digest of $1'; ";

/// A test scenario: a host with a problem, and the result of a run there. The driver zephanor is
/// loaded, and the manifest ends with the unchanged file /last.
struct Situation {
  std::string name;
  std::vector<std::string> manifest;  ///< the lines before the one of /last
  std::string prepare;                ///< shell commands, run last on the host
  std::string fault;                  ///< of the program, one of faults.cpp
  int status = 0;
  std::string console = status == 0 ? kSucceeded : kFailed;
  std::string output;
  std::string log;                                        ///< part of it
  std::string outcome = status == 0 ? "done" : "failed";  ///< of the run
  std::string finding;                                    ///< one that is reported before the run
  std::string runs;      ///< the command lines, without those below
  bool unloads = true;   ///< the driver, before all other commands
  bool goes_on = false;  ///< to the end of the manifest and the later steps, after all others

  // For follow_test.
  std::string pattern;   ///< names the cause in the output
  std::string mend;      ///< shell commands that fix the cause
  std::string ends;      ///< a good outcome, besides "done" and "clean"
  std::string mounts;    ///< shell commands outside the host, in its root
  std::string precious;  ///< a file that must not be lost
  std::string instead;   ///< shell commands instead of the run
  bool heeds = false;    ///< types the commands that `before` prints
};

void PrintTo(const Situation& situation, std::ostream* stream);

std::vector<Situation> situations();

/// The scenarios whose problem is on the host, not in the program.
std::vector<Situation> situations_of_hosts();

/// Prepares `host` for `situation`.
void meet(const Situation& situation, ThrowawayHost& host);

// The command lines of common steps in the trace of a host.
std::string rmmod(const std::string& module);
std::string md5sum(const std::string& path);
std::string disable_and_stop(const std::string& unit);
std::string forget_and_ask(const std::string& unit);
std::string clean_up();

}  // namespace valta
