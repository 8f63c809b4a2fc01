#include "utils/spawn.h"

#include <array>
#include <fcntl.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "utils/descriptor.h"

namespace valta {
namespace {

/// Prepares the streams of a child before it executes its program.
class Streams {
 public:
  Streams() { posix_spawn_file_actions_init(&actions_); }
  ~Streams() { posix_spawn_file_actions_destroy(&actions_); }
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  void open(int stream, const char* path, int flags) {
    posix_spawn_file_actions_addopen(&actions_, stream, path, flags, 0);
  }
  void duplicate(int from, int stream) {
    posix_spawn_file_actions_adddup2(&actions_, from, stream);
  }
  [[nodiscard]] const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

/// The process of `command`; -1 when it cannot be started.
pid_t start(std::vector<std::string>& command, const Streams& streams) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) {
    arguments.push_back(argument.data());
  }
  arguments.push_back(nullptr);
  pid_t child = -1;
  const int error =
      posix_spawnp(&child, arguments[0], streams.actions(), nullptr, arguments.data(), environ);
  return error == 0 ? child : -1;
}

int wait_for(pid_t child) {
  int status = 0;
  const bool ended = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status);
  return ended ? WEXITSTATUS(status) : kNotRun;
}

/// All that a child writes to `pipe`, once it has the other end.
std::string read_all(Pipe& pipe) {
  pipe.writer.reset();
  std::string text;
  std::array<char, 4096> buffer{};
  ssize_t count = 0;
  while ((count = read(pipe.reader.get(), buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace

int exit_status_of(std::vector<std::string> command, Printing printing) {
  Streams streams;
  if (printing == Printing::silent) {
    streams.open(STDOUT_FILENO, "/dev/null", O_WRONLY);
    streams.duplicate(STDOUT_FILENO, STDERR_FILENO);
  }
  return wait_for(start(command, streams));
}

bool output_of(std::vector<std::string> command, const std::string& input, std::string& output) {
  Pipe pipe = make_pipe();
  if (!pipe.reader.is_open()) {
    return false;
  }
  Streams streams;
  streams.open(STDIN_FILENO, input.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  streams.duplicate(pipe.writer.get(), STDOUT_FILENO);
  streams.open(STDERR_FILENO, "/dev/null", O_WRONLY);
  const pid_t child = start(command, streams);
  output = read_all(pipe);
  return wait_for(child) == 0;
}

int run_between(std::vector<std::string> command, int input, int output, std::string& complaint) {
  Pipe pipe = make_pipe();
  if (!pipe.reader.is_open()) {
    return kNotRun;
  }
  Streams streams;
  streams.duplicate(input, STDIN_FILENO);
  streams.duplicate(output, STDOUT_FILENO);
  streams.duplicate(pipe.writer.get(), STDERR_FILENO);
  const pid_t child = start(command, streams);
  complaint = read_all(pipe);
  return wait_for(child);
}

}  // namespace valta
