#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <getopt.h>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sysexits.h>
#include <unistd.h>

#include "inspect/conditions.h"
#include "inspect/holders.h"
#include "inspect/image.h"
#include "inspect/judge.h"
#include "inspect/modules.h"
#include "inspect/rehearsal.h"
#include "inspect/remains.h"
#include "inspect/stand_ins.h"
#include "log/log.h"
#include "uninstall/install_root.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUsage =
    "Usage: valta-driver-inspect before [--program FILE] [--timeout SECONDS] [--json] [--verbose]\n"
    "       valta-driver-inspect after [--status N] [--console FILE] [--json] [--verbose]\n"
    "       valta-driver-inspect --help | --version\n";

constexpr int kDefaultTimeout = 600;
constexpr int kLongestTimeout = 86400;

struct Options {
  std::string program;  ///< empty: the one beside this one
  int timeout = kDefaultTimeout;
  std::optional<int> status;
  std::optional<std::string> console;
  bool json = false;
  bool verbose = false;
};

std::string program_beside() {
  return fs::read_symlink("/proc/self/exe").replace_filename("valta-driver-uninstaller");
}

std::optional<std::string> log_below(const std::string& root) {
  std::string text;
  return try_read_file(root + kLogPath, text) ? std::optional(text) : std::nullopt;
}

/// What the run would do, as the image shows it.
void foretell(const Options& options, const Installation& installation, Report& report) {
  const Image image;
  const Rehearsal rehearsal = rehearse(image, options.program, options.timeout);
  const std::string& root = image.root();
  judge({rehearsal.status, rehearsal.console, log_below(root), dkms_registrations(root),
         path_exists(root + installation.root)},
        report);
  Image::Changes changes = image.changes();
  report.output = rehearsal.output;
  report.removed = std::move(changes.removed);
  report.written = std::move(changes.written);
  for (const std::string& deed : rehearsal.deeds) {
    const std::vector<std::string> words = split(deed, ' ');
    if (words[0] == "unloaded") {
      report.unloaded.push_back(words[1]);
    } else {
      report.services.push_back({words[1], words[0]});
    }
  }
  if (!rehearsal.status) {
    report.outcome = Outcome::unfinished;
    report.reason = "it hung for " + std::to_string(options.timeout) + " seconds";
    for (const std::string& command : rehearsal.hung_on) {
      report.add("hangs", Severity::blocks, "A run would wait for this command.", command);
    }
  }
  if (report.outcome == Outcome::busy || report.outcome == Outcome::failed) {
    look_at_holders(rehearsal.modules, report);
  }
  if (report.outcome <= Outcome::shared || report.outcome == Outcome::failed) {
    look_at_remains(root, installation, report);
  }
  for (const ManifestEntry& entry : installation.entries) {
    for (const std::string& point : image.read_only()) {
      if (entry.path.starts_with(point + "/")) {
        report.add("uncertain", Severity::blocks,
                   "The file system of " + entry.path + " cannot be rehearsed on.", point,
                   "findmnt " + point);
      }
    }
  }
}

/// Says what is in the way; nothing when nothing is.
std::string try_to_leave_namespaces() {
  if (geteuid() != 0) {
    return "a rehearsal takes root";
  }
  try {
    leave_namespaces();
    return "";
  } catch (const NotPossible& problem) {
    return problem.what();
  }
}

Report before(const Options& options) {
  Report report;
  report.verb = "before";
  std::string obstacle = try_to_leave_namespaces();  // the looks leave access times alone after it
  const Installation installation = read_installation("");
  look_at_manifest(installation, report);
  look_at_units(installation, report);
  look_at_tools(installation, report);
  look_at_log_space(report);
  look_at_trust(report);
  look_at_unseen(report);
  try {
    if (!obstacle.empty()) {
      throw NotPossible(obstacle);
    }
    foretell(options, installation, report);
  } catch (const NotPossible& problem) {
    report.outcome = Outcome::unknown;
    report.reason = problem.what();
    look_at_holders(loaded_modules(), report);
  }
  return report;
}

/// The log does not tell what was removed under a path, but the manifest does.
void name_kinds(const Installation& installation, Report& report) {
  const std::map<std::string_view, const char*> kinds = {{"FILE", "file"},
                                                         {"RFILE", "file"},
                                                         {"SYMLINK", "link"},
                                                         {"RLINK", "link"},
                                                         {"DIR", "directory"}};
  for (const ManifestEntry& entry : installation.entries) {
    const auto kind = kinds.find(entry.type);
    for (Removal& removal : report.removed) {
      if (kind != kinds.end() && removal.path == entry.path) {
        removal.kind = kind->second;
      }
    }
  }
}

Report after(const Options& options) {
  Report report;
  report.verb = "after";
  const Installation installation = read_installation("");
  std::string console;
  if (options.console) {
    read_file(*options.console, console);
  }
  judge({options.status, console, log_below(""), dkms_registrations(""),
         path_exists(installation.root)},
        report);
  if (access(kLogPath, R_OK) != 0 && errno == EACCES) {
    report.reason = "only root can read the log";
  }
  name_kinds(installation, report);
  look_at_remains("", installation, report);
  look_at_known_units(installation, report);
  look_at_loaded_modules(report);
  if (report.outcome == Outcome::busy) {
    look_at_holders(loaded_modules(), report);
  }
  return report;
}

[[noreturn]] void refuse(const std::string& why) {
  std::fprintf(stderr, "valta-driver-inspect: %s\n%s", why.c_str(), kUsage);
  std::exit(EX_USAGE);
}

/// A whole number from 0 to `most`.
int number_of(const char* option, const std::string& text, int most) {
  const bool digits =
      !text.empty() && text.size() < 6 && text.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || std::atoi(text.c_str()) > most) {
    refuse(std::string(option) + " takes a number from 0 to " + std::to_string(most));
  }
  return std::atoi(text.c_str());
}

/// The absolute path of a program that may be executed.
std::string usable_program(const std::string& program) {
  std::error_code error;
  const fs::path path = fs::canonical(program, error);
  if (error || !fs::is_regular_file(path) || !is_executable(path)) {
    refuse("there is no program " + program);
  }
  return path;
}

std::string readable_file(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) {
    refuse("cannot read " + path + ": " + std::strerror(errno));
  }
  return path;
}

Options read_options(int argc, char** argv, bool is_before) {
  enum : int { kProgram = 1, kTimeout, kStatus, kConsole, kJson, kVerbose };
  const option common[] = {
      {"json", no_argument, nullptr, kJson}, {"verbose", no_argument, nullptr, kVerbose}, {}};
  const option for_before[] = {{"program", required_argument, nullptr, kProgram},
                               {"timeout", required_argument, nullptr, kTimeout},
                               common[0],
                               common[1],
                               {}};
  const option for_after[] = {{"status", required_argument, nullptr, kStatus},
                              {"console", required_argument, nullptr, kConsole},
                              common[0],
                              common[1],
                              {}};
  Options options;
  std::string program;
  for (int found = 0; found != -1;) {
    found = getopt_long(argc, argv, "", is_before ? for_before : for_after, nullptr);
    switch (found) {
      case kProgram:
        program = optarg;
        break;
      case kTimeout:
        options.timeout = number_of("--timeout", optarg, kLongestTimeout);
        break;
      case kStatus:
        options.status = number_of("--status", optarg, 255);
        break;
      case kConsole:
        options.console = readable_file(optarg);
        break;
      case kJson:
        options.json = true;
        break;
      case kVerbose:
        options.verbose = true;
        break;
      case -1:
        break;
      default:  // getopt_long has said what is wrong
        std::fputs(kUsage, stderr);
        std::exit(EX_USAGE);
    }
  }
  if (optind != argc) {
    refuse(std::string("unexpected argument ") + argv[optind]);
  }
  if (is_before) {
    options.program = usable_program(program.empty() ? program_beside() : program);
  }
  return options;
}

int run(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "--help" || verb == "-h") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (verb == "--version") {
    std::printf("valta-driver-inspect %s\n", kStackVersion);
    return 0;
  }
  if (verb != "before" && verb != "after") {
    refuse(verb.empty() ? "say before or after" : "there is no " + verb);
  }
  argv[1] = argv[0];  // the name that getopt_long complains under
  const Options options = read_options(argc - 1, argv + 1, verb == "before");
  const auto start = std::chrono::steady_clock::now();
  Report report = verb == "before" ? before(options) : after(options);
  report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (options.json) {
    print_json(report);
  } else {
    print_text(report, options.verbose);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    std::fprintf(stderr, "valta-driver-inspect: cannot write: %s\n", std::strerror(errno));
    return EX_IOERR;
  }
  return exit_status(report);
}

}  // namespace
}  // namespace valta::inspect

int main(int argc, char** argv) {
  using namespace valta::inspect;
  try {
    if (const StandIn* const tool = find_stand_in(valta::last_component(argv[0]))) {
      return tool->run({argv + 1, argv + argc});
    }
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "valta-driver-inspect: %s\n", error.what());
    return EX_SOFTWARE;
  }
}
