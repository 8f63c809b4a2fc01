#include "inspect/dry_run/first_process.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "inspect/dry_run/confinement.h"
#include "inspect/dry_run/limits.h"
#include "inspect/dry_run/namespaces.h"
#include "utils/regular_file.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMillisecondsBetweenLooks = 200;
constexpr auto kTimeToDie = std::chrono::seconds(1);

/// The report of the first process: why the program could not be started, or its wait status.
struct Message {
  int error = 0;
  int wait_status = 0;
  std::array<char, 200> tried{};
};

Pipe need_pipe() {
  Pipe pipe = make_pipe();
  if (!pipe.reader.is_open()) {
    fail_to("create a pipe");
  }
  return pipe;
}

/// Takes the place of this process.
[[noreturn]] void execute(const std::string& program, int output, int console) {
  confine();
  const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (dup2(nothing.get(), STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
      dup2(console, STDERR_FILENO) < 0) {
    fail_to("set the standard streams");
  }
  restore_limits();  // files that are open now may have higher numbers than it allows
  std::array<char*, 2> arguments = {const_cast<char*>(program.c_str()), nullptr};
  execv(program.c_str(), arguments.data());
  fail_to("run " + program);
}

/// As fork; the child is the first process of a PID namespace.
pid_t fork_into_namespace() {
  return static_cast<pid_t>(
      syscall(SYS_clone, CLONE_NEWPID | SIGCHLD, nullptr, nullptr, nullptr, 0));
}

/// The code of the first process. If its child cannot execute the program, the child sends the
/// report.
[[noreturn]] void live(const Overlay& overlay, const std::string& program, int output, int console,
                       int report) {
  Message message;
  try {
    offer_memory();  // the procfs of the overlay is read-only
    overlay.enter();
    const pid_t child = fork();
    if (child < 0) {
      fail_to("start a process in the overlay");
    }
    if (child == 0) {
      execute(program, output, console);
    }
    while (::wait(&message.wait_status) != child) {
    }
  } catch (const std::exception& problem) {
    message.error = 1;
    std::strncpy(message.tried.data(), problem.what(), message.tried.size() - 1);
  }
  [[maybe_unused]] const auto ignored = write(report, &message, sizeof message);
  _exit(message.error);
}

/// Waits until `report` has something to read or its writers are gone; false when time is over.
bool wait_for(int report, int timeout, const std::function<bool()>& gives_up) {
  const auto end = Clock::now() + std::chrono::seconds(timeout);
  while (Clock::now() < end && !gives_up()) {
    pollfd ready{report, POLLIN, 0};
    if (poll(&ready, 1, kMillisecondsBetweenLooks) > 0) {
      return true;
    }
  }
  return false;
}

std::string text_below_proc(pid_t process, const std::string& file) {
  std::string text;
  read_regular_file("/proc/" + std::to_string(process) + "/" + file, text);
  return text;
}

/// The command line of `process`; empty when it has ended.
std::string command_of(pid_t process) {
  std::string command = text_below_proc(process, "cmdline");
  std::replace(command.begin(), command.end(), '\0', ' ');
  return command.substr(0, command.find_last_not_of(' ') + 1);
}

}  // namespace

FirstProcess::FirstProcess(const Overlay& overlay, const std::string& program, int output,
                           int console) {
  Pipe report = need_pipe();
  Pipe lifeline = need_pipe();
  pid_ = fork_into_namespace();
  if (pid_ < 0) {
    fail_to("start a process in a namespace of its own");
  }
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    report.reader.reset();
    lifeline.writer.reset();
    // A parent that died before the line above took effect has closed the other end.
    pollfd parent{lifeline.reader.get(), POLLIN, 0};
    if (poll(&parent, 1, 0) != 0) {
      _exit(1);
    }
    live(overlay, program, output, console, report.writer.get());
  }
  report_ = std::move(report.reader);
  lifeline_ = std::move(lifeline.writer);
}

FirstProcess::~FirstProcess() {
  kill(pid_, SIGKILL);
  const auto end = Clock::now() + kTimeToDie;
  while (waitpid(pid_, nullptr, WNOHANG) == 0 && Clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::optional<int> FirstProcess::wait(int timeout, const std::function<bool()>& gives_up) const {
  if (!wait_for(report_.get(), timeout, gives_up)) {
    return std::nullopt;
  }
  Message message;
  if (read(report_.get(), &message, sizeof message) != sizeof message) {
    throw NotPossible("the dry run was killed");
  }
  if (message.error != 0) {
    throw NotPossible(message.tried.data());
  }
  return WIFEXITED(message.wait_status) ? WEXITSTATUS(message.wait_status)
                                        : 128 + WTERMSIG(message.wait_status);
}

std::vector<std::string> FirstProcess::last_commands() const {
  std::vector<std::string> commands;
  std::vector<pid_t> processes = {pid_};
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

}  // namespace valta::inspect
