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

/// A host on which something is not as it should be, and what a run there comes to. The driver
/// zephanor is loaded, and the manifest ends with the unchanged file /last.
struct Situation {
  std::string name;
  std::vector<std::string> manifest;  ///< the lines before the one of /last
  std::string prepare;                ///< shell commands, the last thing done to the host
  std::string fault;                  ///< that the program meets, one of faults.cpp
  int status = 0;
  std::string console = status == 0 ? kSucceeded : kFailed;
  std::string output;
  std::string log;                                        ///< part of it
  std::string outcome = status == 0 ? "done" : "failed";  ///< as it is judged
  std::string finding;                                    ///< one that is told before the run
  std::string runs;      ///< the command lines, but for those of what follows
  bool unloads = true;   ///< the driver, in front of all others
  bool goes_on = false;  ///< to the end of the manifest and the clean-up, behind all others

  // For those who follow the output of valta-driver-inspect there.
  std::string pattern;   ///< names the cause in the output
  std::string mend;      ///< shell commands that fix the cause
  std::string ends;      ///< a good end, beside "done" and "clean"
  std::string mounts;    ///< shell commands outside the host, in its root
  std::string precious;  ///< a file that nobody wants to lose
  std::string instead;   ///< shell commands in the place of the run
  bool heeds = false;    ///< types what is offered before the run
};

void PrintTo(const Situation& situation, std::ostream* stream);

std::vector<Situation> situations();

/// Those whose fault is the host's.
std::vector<Situation> situations_of_hosts();

/// Makes `host` what `situation` says.
void meet(const Situation& situation, ThrowawayHost& host);

// The command lines of common steps, as a host's trace has them.
std::string rmmod(const std::string& module);
std::string md5sum(const std::string& path);
std::string disable_and_stop(const std::string& unit);
std::string forget_and_ask(const std::string& unit);
std::string clean_up();

}  // namespace valta
