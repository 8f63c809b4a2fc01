// Makes calls of the C library fail that hardly ever fail on a real host. The variable FAULT
// selects the failure. The linker replaces the real functions with these in a copy of the program.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace {

bool fault_is(const std::string& name) {
  const char* const fault = std::getenv("FAULT");
  return fault != nullptr && fault == name;
}

/// The plain file that replaces `path` on a throwaway host with a procfs. In a dry run, the module
/// list is the overlay's: the procfs of a kernel without modules has no place for it.
std::string plain_file(const std::string& path) {
  if (path.starts_with("/proc/")) {
    for (const std::string& plain :
         {"/dev/valta-driver-inspect/" + path.substr(6), "/plain" + path}) {
      if (access(plain.c_str(), F_OK) == 0) {
        return plain;
      }
    }
  }
  return path;
}

/// The readable part of a file: all except its last four bytes.
std::array<char, 4096> front;
std::size_t front_size = 0;

ssize_t read_front(void* /*cookie*/, char* buffer, std::size_t size) {
  if (front_size == 0 || size < front_size) {
    errno = EIO;
    return -1;
  }
  std::copy_n(front.data(), front_size, buffer);
  return static_cast<ssize_t>(std::exchange(front_size, 0));
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming): the linker's names
extern "C" {
uid_t __real_getuid();
int __real_unlink(const char* path);
FILE* __real_popen(const char* command, const char* mode);
FILE* __real_fopen(const char* path, const char* mode);
int __real_open(const char* path, int flags, mode_t mode);

uid_t __wrap_getuid() {
  static int calls = 0;
  return fault_is("not-root-anymore") && calls++ > 0 ? 1000 : __real_getuid();
}

int __wrap_unlink(const char* path) {
  errno = EROFS;
  return fault_is("unlink") ? -1 : __real_unlink(path);
}

FILE* __wrap_popen(const char* command, const char* mode) {
  return fault_is("popen") ? nullptr : __real_popen(command, mode);
}

int __wrap_open(const char* path, int flags, mode_t mode) {
  if (fault_is("tmpfile") && (flags & O_TMPFILE) == O_TMPFILE) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return __real_open(plain_file(path).c_str(), flags, mode);
}

FILE* __wrap_fopen(const char* path, const char* mode) {
  if (fault_is("memory") && path == std::string("/proc/modules")) {
    throw std::bad_alloc();
  }
  FILE* const file = __real_fopen(plain_file(path).c_str(), mode);
  if (!fault_is(std::string("read:") + path)) {
    return file;
  }
  front_size = std::fread(front.data(), 1, front.size(), file) - 4;
  std::fclose(file);
  return fopencookie(nullptr, mode, {&read_front, nullptr, nullptr, nullptr});
}
}
// NOLINTEND(readability-identifier-naming)
