#include "utils/files.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <glob.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "log/log.h"
#include "utils/text.h"

namespace valta {
namespace {

constexpr std::size_t kProcChunk = 1024;
constexpr std::size_t kFileChunk = 65536;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

bool accessible(const std::string& path, int mode) {
  return !has_nul(path) && access(path.c_str(), mode) == 0;
}

File open_for_reading(const std::string& path) {
  return {has_nul(path) ? nullptr : std::fopen(path.c_str(), "rb"), &std::fclose};
}

}  // namespace

bool path_exists(const std::string& path) { return accessible(path, F_OK); }

bool is_executable(const std::string& path) { return accessible(path, X_OK); }

bool is_directory(const std::string& path) {
  struct stat status = {};
  return !has_nul(path) && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool is_symlink(const std::string& path) {
  struct stat status = {};
  return !has_nul(path) && lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool read_file_chunked(const std::string& path, std::string& text) {
  const File file = open_for_reading(path);
  if (!file) {
    std::printf("Failed to open %s\n", path.c_str());
    return false;
  }
  std::array<char, kProcChunk> buffer{};
  while (std::feof(file.get()) == 0 && std::ferror(file.get()) == 0) {
    const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), file.get());
    const std::string_view chunk(buffer.data(), count);
    text += chunk.substr(0, chunk.find('\0'));
  }
  return true;
}

bool read_file(const std::string& path, std::string& text) {
  const File file = open_for_reading(path);
  if (!file) {
    zvlogger::log(LogLevel::Debug, "Failed to open %s\n", path.c_str());
    return false;
  }
  std::string content;
  std::array<char, kFileChunk> buffer{};
  while (std::feof(file.get()) == 0) {
    const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), file.get());
    if (std::ferror(file.get()) != 0) {
      if (errno == EISDIR) {
        break;
      }
      zvlogger::log(LogLevel::Debug, "Failed to read %s: %s\n", path.c_str(), std::strerror(errno));
      return false;
    }
    content.append(buffer.data(), count);
  }
  text = std::move(content);
  return true;
}

bool file_has_line_with(const std::string& path, const std::string& needle) {
  std::string content;
  path.starts_with("/proc") ? read_file_chunked(path, content) : read_file(path, content);
  FieldReader lines(content, '\n');
  while (const auto line = lines.next()) {
    if (line->find(needle) != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

std::vector<std::string> glob_paths(const std::string& pattern) {
  glob_t matches{};
  const int code =
      has_nul(pattern) ? GLOB_NOMATCH : glob(pattern.c_str(), GLOB_TILDE, nullptr, &matches);
  std::vector<std::string> paths;
  switch (code) {
    case 0:
      paths.assign(matches.gl_pathv, matches.gl_pathv + matches.gl_pathc);
      break;
    case GLOB_NOMATCH:
      zvlogger::log(LogLevel::Debug, "glob for %s matchs nothing.\n", pattern.c_str());
      break;
    case GLOB_NOSPACE:
      zvlogger::log(LogLevel::Warning, "glob for %s oom\n", pattern.c_str());
      break;
    case GLOB_ABORTED:
      zvlogger::log(LogLevel::Warning, "glob for %s read error\n", pattern.c_str());
      break;
    default:
      zvlogger::log(LogLevel::Warning, "glob() failed with return_value %d", code);
  }
  globfree(&matches);
  return paths;
}

}  // namespace valta
