// The program of a dry run in a test. It tries every way to reach the host, and prints the names of
// those that work. The test expects none.

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "utils/descriptor.h"

namespace {

/// A System V memory segment that the test has made on the host.
constexpr key_t kSharedMemory = 0x76616c74;
/// A descriptor that the caller of valta-driver-inspect has open.
constexpr int kOpenDescriptor = 5;
/// The descriptors that it may have open at once.
constexpr rlim_t kFileLimit = 256;
/// Devices that the test has put on the host.
constexpr std::array<const char*, 5> kDevices = {"/dev/null", "/dev/zero", "/dev/full",
                                                 "/dev/random", "/dev/urandom"};

/// A path that begins with a NUL byte names a socket of the network namespace.
bool connects(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(std::data(address.sun_path), sizeof address.sun_path);
  const valta::Descriptor client(socket(AF_UNIX, SOCK_STREAM, 0));
  return connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool writes_to_fifo(const char* path) {
  struct stat status {};
  const valta::Descriptor file(open(path, O_WRONLY | O_NONBLOCK));
  return file.is_open() && fstat(file.get(), &status) == 0 && S_ISFIFO(status.st_mode) &&
         write(file.get(), "x", 1) == 1;
}

bool opens_device(const char* path) {
  struct stat status {};
  const valta::Descriptor file(open(path, O_RDWR | O_NONBLOCK | O_NOCTTY));
  return file.is_open() && fstat(file.get(), &status) == 0 && S_ISCHR(status.st_mode);
}

/// Tries in a child, because it would change this process.
bool succeeds_in_child(const std::function<bool()>& attempt) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(attempt() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status == 0;
}

std::string field_of(const char* file, const std::string& name) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name)) {
      return line.substr(name.size());
    }
  }
  return "";
}

std::ptrdiff_t processes() {
  const std::filesystem::directory_iterator entries("/proc");
  return std::count_if(begin(entries), end(entries), [](const auto& entry) {
    return entry.path().filename().string().find_first_not_of("0123456789") == std::string::npos;
  });
}

rlimit limit_of(__rlimit_resource resource) {
  rlimit limit{};
  getrlimit(resource, &limit);
  return limit;
}

struct Door {
  const char* name;
  bool (*opens)();
};

const std::array kDoors = {
    Door{"mode of /dev/null", [] { return chmod("/dev/null", 0600) == 0; }},
    Door{"owner of /dev/zero", [] { return chown("/dev/zero", 1, 1) == 0; }},
    Door{"times of /dev/urandom",
         [] { return utimensat(AT_FDCWD, "/dev/urandom", nullptr, 0) == 0; }},
    Door{"a device that /dev lacks",
         [] { return !std::all_of(kDevices.begin(), kDevices.end(), opens_device); }},
    Door{"mode of systemd's socket", [] { return chmod("/run/systemd/private", 0600) == 0; }},
    Door{"systemd's socket", [] { return connects("/run/systemd/private"); }},
    Door{"socket that is mounted on a file", [] { return connects("/mounted/socket"); }},
    Door{"FIFO that is mounted on a file", [] { return writes_to_fifo("/mounted/fifo"); }},
    Door{"device that is mounted on a file", [] { return opens_device("/mounted/node"); }},
    Door{"socket in a file system", [] { return connects("/socket"); }},
    Door{"FIFO in a file system", [] { return writes_to_fifo("/fifo"); }},
    Door{"device in a file system", [] { return opens_device("/node"); }},
    Door{"new device", [] { return mknod("/new", S_IFCHR | 0600, makedev(1, 3)) == 0; }},
    Door{"mount", [] { return mount("none", "/tmp", "tmpfs", 0, "") == 0; }},
    Door{"mount namespace",
         [] { return succeeds_in_child([] { return unshare(CLONE_NEWNS) == 0; }); }},
    Door{"user namespace",
         [] { return succeeds_in_child([] { return unshare(CLONE_NEWUSER) == 0; }); }},
    Door{"settings of the kernel", [] { return open("/proc/sys/kernel/hostname", O_WRONLY) >= 0; }},
    Door{"/sys", [] { return chmod("/sys/kernel", 0755) == 0; }},
    Door{"network",
         [] {
           return connects({"\0valta-probe", 12});
         }},
    Door{"shared memory", [] { return shmget(kSharedMemory, 0, 0) >= 0; }},
    Door{"other processes", [] { return processes() > 2; }},
    Door{"open file of the caller", [] { return fcntl(kOpenDescriptor, F_GETFD) >= 0; }},
    Door{"terminal of the caller", [] { return getsid(0) != getpid(); }},
    Door{"program for core dumps", [] { return limit_of(RLIMIT_CORE).rlim_cur != 1; }},
    Door{"capabilities",
         [] { return field_of("/proc/self/status", "CapEff:\t") != "000000000000001b"; }},
    Door{"new privileges", [] { return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) != 1; }},
    Door{"memory of others", [] { return field_of("/proc/self/oom_score_adj", "") != "1000"; }},
    Door{"limit for open files", [] { return limit_of(RLIMIT_NOFILE).rlim_cur != kFileLimit; }},
    Door{"signal for large files", [] { return std::signal(SIGXFSZ, SIG_DFL) != SIG_DFL; }},
};

}  // namespace

int main() {
  for (const Door& door : kDoors) {
    if (door.opens()) {
      std::puts(door.name);
    }
  }
  std::printf("%zu doors tried\n", kDoors.size());
}
