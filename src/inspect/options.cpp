#include "inspect/options.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <getopt.h>
#include <string_view>
#include <sysexits.h>
#include <vector>

#include "inspect/host/program.h"
#include "uninstall/install_root.h"
#include "utils/files.h"
#include "utils/regular_file.h"

namespace valta::inspect {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUsage =
    "Usage: valta-driver-inspect before [--program FILE] [--save FILE]\n"
    "                                   [--timeout SECONDS] [--json] [--verbose]\n"
    "       valta-driver-inspect after [--status N] [--console FILE]\n"
    "                                  [--timeout SECONDS] [--json] [--verbose]\n"
    "       valta-driver-inspect --help | --version\n";

constexpr const char* kHelp =
    "\n"
    "  before  shows what a run of valta-driver-uninstaller would do to this host,\n"
    "          and changes nothing\n"
    "  after   checks what the last run did, and shows what is left\n"
    "\n"
    "  --program FILE     the uninstaller, if not the one beside this program\n"
    "  --save FILE        save what the run would delete or change in this archive\n"
    "  --timeout SECONDS  time limit: 600 by default for before, 60 for after\n"
    "  --status N         the exit status of the run\n"
    "  --console FILE     what the run printed on standard error\n"
    "  --json             print one JSON object\n"
    "  --verbose          print every finding, and lists of paths, output and log\n"
    "\n"
    "Exit status: 0 everything is removed; 1 something is kept; 2 the run fails or does\n"
    "nothing; 3 the result is unknown; 64 wrong usage. See valta-driver-inspect(8).\n";

constexpr int kTimeoutBefore = 600;
constexpr int kTimeoutAfter = 60;
constexpr int kLongestTimeout = 86400;

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

std::string default_program() {
  std::string program = program_beside();
  if (program.empty()) {
    refuse("/proc is not mounted: use --program");
  }
  return program;
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
  if (!read_regular_file(path, text)) {
    refuse("cannot read " + path + ": " + std::strerror(errno));
  }
  return text;
}

[[noreturn]] void help() {
  std::printf("%s%s", kUsage, kHelp);
  std::exit(EX_OK);
}

/// An option, the command that has it (none: both), and the function for its argument.
struct OptionRow {
  const char* name;
  int has_argument;
  std::optional<Command> of;
  void (*take)(Options& options, const char* argument);
};

constexpr std::array<OptionRow, 8> kOptions = {{
    {"program", required_argument, Command::before,
     [](Options& options, const char* argument) { options.program = argument; }},
    {"save", required_argument, Command::before,
     [](Options& options, const char* argument) { options.save = argument; }},
    {"timeout",
     required_argument,
     {},
     [](Options& options, const char* argument) {
       options.timeout = number_of("--timeout", argument, 1, kLongestTimeout);
     }},
    {"status", required_argument, Command::after,
     [](Options& options, const char* argument) {
       options.status = number_of("--status", argument, 0, 255);
     }},
    {"console", required_argument, Command::after,
     [](Options& options, const char* argument) { options.console = text_of(argument); }},
    {"json", no_argument, {}, [](Options& options, const char*) { options.json = true; }},
    {"verbose", no_argument, {}, [](Options& options, const char*) { options.verbose = true; }},
    {"help", no_argument, {}, [](Options&, const char*) { help(); }},
}};

/// The command in the first argument. --help and --version print an answer and exit.
Command read_command(const std::string& argument) {
  if (argument == "--help" || argument == "-h") {
    help();
  }
  if (argument == "--version") {
    std::printf("valta-driver-inspect %s\n", kStackVersion);
    std::exit(EX_OK);
  }
  for (const Command command : {Command::before, Command::after}) {
    if (argument == name_of(command)) {
      return command;
    }
  }
  refuse(argument.empty() ? R"(expected "before" or "after")" : "unknown command " + argument);
}

}  // namespace

Options read_options(int argc, char** argv) {
  Options options;
  options.command = read_command(argc > 1 ? argv[1] : "");
  options.timeout = options.command == Command::before ? kTimeoutBefore : kTimeoutAfter;
  std::vector<option> known;
  for (std::size_t row = 0; row < kOptions.size(); ++row) {
    if (!kOptions.at(row).of || kOptions.at(row).of == options.command) {
      known.push_back(
          {kOptions.at(row).name, kOptions.at(row).has_argument, nullptr, static_cast<int>(row)});
    }
  }
  known.push_back({});
  std::string name = "valta-driver-inspect";
  argv[1] = name.data();  // the name in the messages of getopt_long
  for (int found = 0;
       (found = getopt_long(argc - 1, argv + 1, "h", known.data(), nullptr)) != -1;) {
    if (found == '?') {  // getopt_long has printed the error
      std::fputs(kUsage, stderr);
      std::exit(EX_USAGE);
    }
    found == 'h' ? help() : kOptions.at(static_cast<std::size_t>(found)).take(options, optarg);
  }
  if (optind != argc - 1) {
    refuse(std::string("unexpected argument ") + argv[optind + 1]);
  }
  if (options.command == Command::before) {
    options.program = usable_program(options.program.empty() ? default_program() : options.program);
  }
  return options;
}

}  // namespace valta::inspect
