#pragma once

#include <optional>
#include <string>

#include "inspect/report/report.h"

namespace valta::inspect {

/// The options of the command line.
struct Options {
  Command command = Command::before;
  std::string program;  ///< for `before`: an absolute path
  int timeout = 0;      ///< in seconds: of the dry run, or of `after`
  std::optional<int> status;
  std::string console;  ///< the text of the file
  std::string save;     ///< for `before`: the archive to write; empty for none
  bool json = false;
  bool verbose = false;
};

/// Reads the command line. Ends the process with status 0 after --help and --version, and with
/// EX_USAGE, after a message and the usage on standard error, when something is wrong.
[[nodiscard]] Options read_options(int argc, char** argv);

}  // namespace valta::inspect
