#include "inspect/dry_run/dry_run.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/capability.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "inspect/dry_run/stubs.h"
#include "inspect/host/installation.h"
#include "inspect/host/modules.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSilentSeconds = 2;

/// The capabilities that deleting and writing files takes.
constexpr std::array<int, 4> kFileCapabilities = {CAP_CHOWN, CAP_DAC_OVERRIDE, CAP_FOWNER,
                                                  CAP_FSETID};

/// What the first process of the image reports: why the program could not be started, or how it
/// ended, as waitpid tells.
struct Message {
  int error = 0;
  int wait_status = 0;
  std::array<char, 200> tried{};
};

/// An anonymous file in memory.
int memory_file(const char* name) {
  const int descriptor = memfd_create(name, MFD_CLOEXEC);
  if (descriptor < 0) {
    fail_to("get a file in memory");
  }
  return descriptor;
}

std::string take_text(int descriptor) {
  std::string text;
  read_file("/proc/self/fd/" + std::to_string(descriptor), text);
  close(descriptor);
  return text;
}

void drop_privileges() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> data{};
  for (const int capability : kFileCapabilities) {
    data[0].permitted |= 1U << static_cast<unsigned>(capability);
  }
  data[0].effective = data[0].permitted;
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
    if (capability > 31 || (data[0].permitted & (1U << static_cast<unsigned>(capability))) == 0) {
      prctl(PR_CAPBSET_DROP, capability);
    }
  }
  if (syscall(SYS_capset, &header, data.data()) != 0 ||
      prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    fail_to("give up privileges");
  }
}

/// What leads from a process to the host past the image: a descriptor that the caller of this one
/// left open, its terminal, and a crash, for which the kernel may start a program there.
void cut_ties() {
  for (const std::string& name : names_in("/proc/self/fd")) {
    if (const int descriptor = std::atoi(name.c_str()); descriptor > STDERR_FILENO) {
      fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
  }
  if (setsid() < 0) {
    fail_to("leave the terminal");
  }
  const rlimit no_dump = {1, 1};     // 0 would let a dump go to a program all the same
  setrlimit(RLIMIT_CORE, &no_dump);  // may not be raised from 0 in a container
}

/// Takes the place of this process.
[[noreturn]] void become_program(const std::string& program, int output, int console) {
  cut_ties();
  drop_privileges();
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (dup2(nothing, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
      dup2(console, STDERR_FILENO) < 0) {
    fail_to("set the standard streams");
  }
  std::array<char*, 2> arguments = {const_cast<char*>(program.c_str()), nullptr};
  execv(program.c_str(), arguments.data());
  fail_to("run " + program);
}

/// As fork; the child is the first process of a PID namespace.
pid_t fork_into_namespace() {
  return static_cast<pid_t>(
      syscall(SYS_clone, CLONE_NEWPID | SIGCHLD, nullptr, nullptr, nullptr, 0));
}

/// The life of the image's first process: when it ends, so do all others there.
[[noreturn]] void live(const Image& image, const std::string& program, int output, int console,
                       int report) {
  Message message;
  try {
    image.enter();
    const pid_t child = fork();
    if (child < 0) {
      fail_to("start a process in the image");
    }
    if (child == 0) {
      become_program(program, output, console);
    }
    while (wait(&message.wait_status) != child) {
    }
  } catch (const std::exception& problem) {
    message.error = 1;
    std::strncpy(message.tried.data(), problem.what(), message.tried.size() - 1);
  }
  [[maybe_unused]] const auto ignored = write(report, &message, sizeof message);
  _exit(message.error);
}

void put_tools_in(const Image& image) {
  const std::string directory = image.root() + Image::kToolDirectory;
  const std::string copy = directory + "/valta-driver-inspect";
  fs::copy_file("/proc/self/exe", copy);
  for (const std::string& name : needed_stand_ins()) {
    fs::create_hard_link(copy, fs::path(directory) / name);
  }
  std::ofstream(directory + "/modules") << loaded_modules();
}

std::string text_below_proc(pid_t process, const std::string& file) {
  std::string text;
  read_file("/proc/" + std::to_string(process) + "/" + file, text);
  return text;
}

/// The command line of `process`; empty when it has ended.
std::string command_of(pid_t process) {
  std::string command = text_below_proc(process, "cmdline");
  std::replace(command.begin(), command.end(), '\0', ' ');
  return command.substr(0, command.find_last_not_of(' ') + 1);
}

/// The command lines of those that `first` waits for in the end.
std::vector<std::string> last_commands(pid_t first) {
  std::vector<std::string> commands;
  std::vector<pid_t> processes = {first};
  while (!processes.empty()) {
    const pid_t process = processes.back();
    processes.pop_back();
    bool waits = false;
    const std::string task = "task/" + std::to_string(process) + "/children";
    for (const std::string& child : split(text_below_proc(process, task), ' ')) {
      const pid_t awaited = std::atoi(child.c_str());
      if (!command_of(awaited).empty()) {
        processes.push_back(awaited);
        waits = true;
      }
    }
    if (!waits) {
      commands.push_back(command_of(process));
    }
  }
  return commands;
}

/// Waits until `report` has something to read or its writers are gone; false at the end of time.
bool wait_for(int report, int timeout) {
  const auto start = Clock::now();
  const bool terminal = isatty(STDERR_FILENO) != 0;
  bool shown = false;
  bool ended = false;
  for (std::int64_t seconds = 0; !ended && seconds < timeout;) {
    pollfd ready{report, POLLIN, 0};
    ended = poll(&ready, 1, 1000) > 0;
    seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
    if (!ended && terminal && seconds >= kSilentSeconds) {
      shown = true;
      std::fprintf(stderr, "\rRehearsing the run: %d s", static_cast<int>(seconds));
    }
  }
  if (shown) {
    std::fprintf(stderr, "\r\033[K");
  }
  return ended;
}

int exit_code(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

}  // namespace

Rehearsal rehearse(const Image& image, const std::string& program, int timeout) {
  put_tools_in(image);
  setenv("PATH", (std::string(Image::kToolDirectory) + ":" + std::getenv("PATH")).c_str(), 1);

  const int output = memory_file("output");
  const int console = memory_file("console");
  std::array<int, 2> report{};
  std::array<int, 2> lifeline{};
  if (pipe2(report.data(), O_CLOEXEC) != 0 || pipe2(lifeline.data(), O_CLOEXEC) != 0) {
    fail_to("get a pipe");
  }
  const pid_t first = fork_into_namespace();
  if (first < 0) {
    fail_to("start a process in a namespace of its own");
  }
  if (first == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(report[0]);
    close(lifeline[1]);
    // Whoever died before the line above took effect has closed the other end.
    pollfd parent{lifeline[0], POLLIN, 0};
    if (poll(&parent, 1, 0) != 0) {
      _exit(1);
    }
    live(image, program, output, console, report[1]);
  }
  close(report[1]);
  close(lifeline[0]);

  Rehearsal rehearsal;
  Message message;
  const bool ended = wait_for(report[0], timeout);
  if (!ended) {
    rehearsal.hung_on = last_commands(first);
  } else if (read(report[0], &message, sizeof message) != sizeof message) {
    message.error = 1;
    std::strncpy(message.tried.data(), "the rehearsal was killed", message.tried.size() - 1);
  }
  kill(first, SIGKILL);
  waitpid(first, nullptr, 0);
  close(report[0]);
  close(lifeline[1]);
  if (message.error != 0) {
    throw NotPossible(message.tried.data());
  }
  if (ended) {
    rehearsal.status = exit_code(message.wait_status);
  }
  rehearsal.output = take_text(output);
  rehearsal.console = take_text(console);
  std::string deeds;
  read_file(image.root() + Image::kToolDirectory + "/done", deeds);
  rehearsal.deeds = split(deeds, '\n');
  read_file(image.root() + Image::kToolDirectory + "/modules", rehearsal.modules);
  return rehearsal;
}

}  // namespace valta::inspect
