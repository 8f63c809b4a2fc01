#include "log/log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <libgen.h>
#include <mutex>
#include <sys/stat.h>

namespace valta::zvlogger {
namespace {

constexpr std::array<const char*, 6> kPrefixes = {"Debug: ",   "",        "",
                                                  "Warning: ", "Error: ", "Emerge: "};
constexpr mode_t kDirectoryMode = 0755;

using PathBuffer = std::array<char, 256>;

struct Logger {
  std::FILE* file = nullptr;
  bool quiet = false;
  std::mutex lock;
};

Logger logger;

bool is_directory(const char* path) {
  struct stat status = {};
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

/// Failures show up when the log file is opened.
void make_directories(const char* directory) {
  PathBuffer buffer{};
  const int length = std::snprintf(buffer.data(), buffer.size(), "%s", directory);
  char* const last = buffer.data() + length - 1;
  if (*last == '/') {
    *last = '\0';
  }
  for (char* slash = buffer.data() + 1; *slash != '\0'; ++slash) {
    if (*slash == '/') {
      *slash = '\0';
      mkdir(buffer.data(), kDirectoryMode);
      *slash = '/';
    }
  }
  mkdir(buffer.data(), kDirectoryMode);
}

bool shown_on_console(LogLevel level) {
  return (level == LogLevel::Print && !logger.quiet) || level == LogLevel::Emerge;
}

}  // namespace

void init(const std::string& path) {
  PathBuffer buffer{};
  std::snprintf(buffer.data(), buffer.size(), "%s", path.c_str());
  const char* const directory = dirname(buffer.data());
  if (!is_directory(directory)) {
    make_directories(directory);
  }
  // fopen obeys the "w" and ignores the "a": each run starts a fresh log.
  logger.file = std::fopen(path.c_str(), "wa");
  if (logger.file == nullptr) {
    std::fputs("Failed to init zvlogger.\n", stderr);
    std::exit(EXIT_FAILURE);
  }
  // The commands of a run inherit open files, and must not write to this one.
  fcntl(fileno(logger.file), F_SETFD, FD_CLOEXEC);
}

void log(LogLevel level, const char* format, ...) {
  const std::lock_guard<std::mutex> guard(logger.lock);
  std::va_list arguments;
  va_start(arguments, format);
  if (shown_on_console(level)) {
    std::va_list console_arguments;
    va_copy(console_arguments, arguments);
    std::vfprintf(stderr, format, console_arguments);
    va_end(console_arguments);
  }
  char* message = nullptr;
  if (logger.file != nullptr && vasprintf(&message, format, arguments) >= 0) {
    std::fprintf(logger.file, "%s%s", kPrefixes[static_cast<std::size_t>(level)], message);
    std::fflush(logger.file);
    std::free(message);
  }
  va_end(arguments);
}

void close() {
  if (logger.file != nullptr) {
    std::fclose(logger.file);
    logger.file = nullptr;
  }
}

void set_quiet() { logger.quiet = true; }

}  // namespace valta::zvlogger
