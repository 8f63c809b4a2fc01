#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>
#include <vector>

#include "inspect/dry_run/stubs.h"
#include "remove/remove.h"
#include "remove/runs.h"
#include "remove/undo.h"
#include "uninstall/install_root.h"
#include "utils/text.h"

namespace valta::inspect::removal {
namespace {

constexpr int kNothingDone = 2;

constexpr const char* kUsage =
    "Usage: valta-driver-remove [--dry-run] [--yes] [--no-save] [--verbose]\n"
    "       valta-driver-remove undo [RUN] [--force]\n"
    "       valta-driver-remove list | --help | --version\n";

constexpr const char* kHelp =
    "\n"
    "Without a command, shows what a run of valta-driver-uninstaller would do to this host,\n"
    "saves what the run would remove or change, asks, runs it, and checks the result.\n"
    "\n"
    "  undo       put back what RUN, by default the last one, removed or changed\n"
    "  list       list the runs of this host\n"
    "\n"
    "  --dry-run  only show what the run would do\n"
    "  --yes      do not ask\n"
    "  --no-save  save nothing, so that the run cannot be undone\n"
    "  --verbose  show every finding, and lists of paths, output and log\n"
    "  --force    undo in spite of another host, a running uninstaller or newer files\n"
    "\n"
    "Exit status: 0 everything is removed, or put back; 1 something is kept, or not put back;\n"
    "2 the run fails, or nothing was done; 3 the result is unknown; 64 wrong usage. See\n"
    "valta-driver-remove(8).\n";

/// Takes `option` out of `arguments`; whether it was there.
bool take(std::vector<std::string>& arguments, const char* option) {
  return std::erase(arguments, option) > 0;
}

int run(std::vector<std::string> arguments) {
  if (take(arguments, "--help") || take(arguments, "-h")) {
    std::printf("%s%s", kUsage, kHelp);
    return EX_OK;
  }
  if (take(arguments, "--version")) {
    std::printf("valta-driver-remove %s\n", kStackVersion);
    return EX_OK;
  }
  const std::string command = arguments.empty() ? "" : arguments.front();
  const bool is_undo = command == "undo";
  if (is_undo || command == "list") {
    arguments.erase(arguments.begin());
  }
  Options options;
  bool force = false;
  std::string name;
  if (is_undo) {
    force = take(arguments, "--force");
    if (!arguments.empty() && !arguments.back().starts_with("-")) {
      name = arguments.back();
      arguments.pop_back();
    }
  } else if (command != "list") {
    options = {take(arguments, "--dry-run"), !take(arguments, "--no-save"),
               take(arguments, "--yes"), take(arguments, "--verbose")};
  }
  if (!arguments.empty()) {
    std::fprintf(stderr, "valta-driver-remove: unexpected argument %s\n%s",
                 arguments.front().c_str(), kUsage);
    return EX_USAGE;
  }
  if (geteuid() != 0) {
    std::fputs("valta-driver-remove: run it as root\n", stderr);
    return EX_NOPERM;
  }
  if (command == "list") {
    list_runs();
    return EX_OK;
  }
  return is_undo ? undo(find_archive(name), force) : remove_stack(options);
}

/// The tools that root runs are the system's, whatever the caller's environment says.
void clean_environment() {
  clearenv();
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("HOME", "/root", 1);
  setenv("LC_ALL", "C", 1);
  umask(S_IWGRP | S_IWOTH);
}

}  // namespace
}  // namespace valta::inspect::removal

int main(int argc, char** argv) {
  using namespace valta::inspect;
  std::signal(SIGCHLD, SIG_DFL);  // a caller that ignores it hides how children end
  std::signal(SIGXFSZ, SIG_IGN);  // a limit of the caller shows up as a write that fails
  try {
    // The dry run calls this program under the names of the tools that it replaces.
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (const auto status = run_as_stub(valta::last_component(argv[0]), arguments)) {
      return *status;
    }
    removal::clean_environment();
    return removal::run(arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "valta-driver-remove: %s\n", error.what());
    return removal::kNothingDone;
  }
}
