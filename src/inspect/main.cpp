#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <getopt.h>
#include <optional>
#include <string>
#include <sysexits.h>

#include "inspect/dry_run/stubs.h"
#include "inspect/report/report.h"
#include "inspect/verbs.h"
#include "uninstall/install_root.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUsage =
    "Usage: valta-driver-inspect before [--program FILE] [--timeout SECONDS]\n"
    "                                   [--json] [--verbose]\n"
    "       valta-driver-inspect after [--status N] [--console FILE]\n"
    "                                  [--json] [--verbose]\n"
    "       valta-driver-inspect --help | --version\n";

constexpr int kDefaultTimeout = 600;
constexpr int kLongestTimeout = 86400;

struct Options {
  std::string program;  ///< empty: the one beside this one
  int timeout = kDefaultTimeout;
  std::optional<int> status;
  std::string console;  ///< the text of the file
  bool json = false;
  bool verbose = false;
};

[[noreturn]] void refuse(const std::string& why) {
  std::fprintf(stderr, "valta-driver-inspect: %s\n%s", why.c_str(), kUsage);
  std::exit(EX_USAGE);
}

/// A whole number from `least` to `most`.
int number_of(const char* option, const std::string& text, int least, int most) {
  const bool digits =
      !text.empty() && text.size() < 6 && text.find_first_not_of("0123456789") == std::string::npos;
  const int number = digits ? std::atoi(text.c_str()) : -1;
  if (number < least || number > most) {
    refuse(std::string(option) + " takes a number from " + std::to_string(least) + " to " +
           std::to_string(most));
  }
  return number;
}

std::string program_beside() {
  std::error_code error;
  fs::path own = fs::read_symlink("/proc/self/exe", error);
  if (error) {
    refuse("without /proc it has to be told the --program");
  }
  return own.replace_filename("valta-driver-uninstaller");
}

/// The absolute path of a program that may be executed.
std::string usable_program(const std::string& program) {
  std::error_code error;
  const fs::path path = fs::canonical(program, error);
  if (error || !fs::is_regular_file(path) || !is_executable(path)) {
    refuse("cannot run " + program);
  }
  return path;
}

std::string text_of(const std::string& path) {
  std::string text;
  if (!read_file(path, text)) {
    refuse("cannot read " + path + ": " + std::strerror(errno));
  }
  return text;
}

constexpr int kProgram = 1;
constexpr int kTimeout = 2;
constexpr int kStatus = 3;
constexpr int kConsole = 4;
constexpr int kJson = 5;
constexpr int kVerbose = 6;
constexpr int kHelp = 7;

constexpr option kJsonOption = {"json", no_argument, nullptr, kJson};
constexpr option kVerboseOption = {"verbose", no_argument, nullptr, kVerbose};
constexpr option kHelpOption = {"help", no_argument, nullptr, kHelp};
constexpr std::array<option, 6> kOptionsBefore = {
    {{"program", required_argument, nullptr, kProgram},
     {"timeout", required_argument, nullptr, kTimeout},
     kJsonOption,
     kVerboseOption,
     kHelpOption,
     {}}};
constexpr std::array<option, 6> kOptionsAfter = {{{"status", required_argument, nullptr, kStatus},
                                                  {"console", required_argument, nullptr, kConsole},
                                                  kJsonOption,
                                                  kVerboseOption,
                                                  kHelpOption,
                                                  {}}};

[[noreturn]] void help() {
  std::fputs(kUsage, stdout);
  std::exit(0);
}

Options read_options(int argc, char** argv, bool is_before) {
  const option* const known = is_before ? kOptionsBefore.data() : kOptionsAfter.data();
  Options options;
  std::string program;
  for (int found = 0; found != -1;) {
    found = getopt_long(argc, argv, "", known, nullptr);
    switch (found) {
      case kProgram:
        program = optarg;
        break;
      case kTimeout:
        options.timeout = number_of("--timeout", optarg, 1, kLongestTimeout);
        break;
      case kStatus:
        options.status = number_of("--status", optarg, 0, 255);
        break;
      case kConsole:
        options.console = text_of(optarg);
        break;
      case kJson:
        options.json = true;
        break;
      case kVerbose:
        options.verbose = true;
        break;
      case kHelp:
        help();
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
  if (verb == "--help") {
    help();
  }
  if (verb == "--version") {
    std::printf("valta-driver-inspect %s\n", kStackVersion);
    return 0;
  }
  if (verb != "before" && verb != "after") {
    refuse(verb.empty() ? "say before or after" : "there is no verb " + verb);
  }
  std::string name = "valta-driver-inspect";
  argv[1] = name.data();  // getopt_long complains under it
  const Options options = read_options(argc - 1, argv + 1, verb == "before");
  const auto start = std::chrono::steady_clock::now();
  Report report = verb == "before" ? before(options.program, options.timeout)
                                   : after(options.status, options.console);
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
  // A caller that ignores it would keep this program from hearing how its children end.
  std::signal(SIGCHLD, SIG_DFL);
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
