// A dry run changes nothing outside it, ends on every host, and sees the host like a run.

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "inspect/host/modules.h"
#include "inspect/host/mounts.h"
#include "inspect/watch.h"
#include "inspection.h"
#include "uninstall/manifest.h"
#include "utils/descriptor.h"

using namespace valta;
using testing::Contains;
using testing::HasSubstr;

using Clock = std::chrono::steady_clock;

class DryRun : public Inspect {};

/// A mount namespace of its own for a test that mounts on the machine.
void leave_mount_namespace() {
  ASSERT_EQ(unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
}

/// A file system whose server does not answer: this process, which has it open.
class DeadFileSystem {
 public:
  explicit DeadFileSystem(std::string point)
      : point_(std::move(point)), server_(open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
    leave_mount_namespace();
    const std::string options =
        "fd=" + std::to_string(server_.get()) + ",rootmode=40000,user_id=0,group_id=0";
    EXPECT_EQ(mount("none", point_.c_str(), "fuse", 0, options.c_str()), 0);
  }
  ~DeadFileSystem() { umount2(point_.c_str(), MNT_DETACH); }
  DeadFileSystem(const DeadFileSystem&) = delete;
  DeadFileSystem& operator=(const DeadFileSystem&) = delete;

 private:
  std::string point_;
  Descriptor server_;
};

/// An automount point: a process that accesses a path below it waits for a daemon to mount. The
/// daemon never does.
class Automount {
 public:
  explicit Automount(std::string point) : point_(std::move(point)) {
    leave_mount_namespace();
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_NONBLOCK), 0);
    requests_ = Descriptor(ends[0]);
    const Descriptor writer(ends[1]);
    daemon_ = fork();
    if (daemon_ == 0) {
      setpgid(0, 0);
      pause();
      _exit(0);
    }
    setpgid(daemon_, daemon_);
    const std::string options = "fd=" + std::to_string(writer.get()) +
                                ",pgrp=" + std::to_string(daemon_) +
                                ",minproto=5,maxproto=5,direct";
    EXPECT_EQ(mount("daemon", point_.c_str(), "autofs", 0, options.c_str()), 0);
  }
  ~Automount() {
    umount2(point_.c_str(), MNT_DETACH);
    kill(daemon_, SIGKILL);
    waitpid(daemon_, nullptr, 0);
  }
  Automount(const Automount&) = delete;
  Automount& operator=(const Automount&) = delete;

  /// Whether a process has requested the mount.
  [[nodiscard]] bool was_asked() const {
    pollfd ready{requests_.get(), POLLIN, 0};
    return poll(&ready, 1, 0) > 0 && (ready.revents & POLLIN) != 0;
  }

 private:
  std::string point_;
  Descriptor requests_;
  pid_t daemon_ = -1;
};

#define SKIP_UNLESS_ROOT(what)                          \
  if (geteuid() != 0) {                                 \
    GTEST_SKIP() << "a normal user may not " << (what); \
  }

/// The duration of `body` in seconds.
template <typename Body>
double seconds_of(const Body& body) {
  const auto start = Clock::now();
  body();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// A listening socket of the machine.
class Listener {
 public:
  /// A path of a file, or a name after a NUL byte.
  explicit Listener(const std::string& path)
      : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    // The address of a socket is too short for many paths.
    const auto slash = path.rfind('/');
    const Descriptor directory(
        slash == std::string::npos ? -1 : open(path.substr(0, slash).c_str(), O_PATH));
    const std::string name =
        slash == std::string::npos
            ? path
            : "/proc/self/fd/" + std::to_string(directory.get()) + path.substr(slash);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(std::data(address.sun_path), sizeof address.sun_path);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(socket_.get(), 1), 0);
  }

  [[nodiscard]] bool was_called() const { return accept(socket_.get(), nullptr, nullptr) >= 0; }

 private:
  Descriptor socket_;
};

TEST_F(DryRun, OpensNoDoorToTheHost) {
  std::string elsewhere = "/dev/shm/valta-XXXXXX";  // on another file system
  ASSERT_NE(mkdtemp(elsewhere.data()), nullptr);
  host.put_probe();
  host.sh("mkdir /mounted; mkfifo /fifo; file " + kLog + " 'Successfully uninstall driver.'" +
          "; file /plain/mounts 'for name in null zero full random urandom; do "
          "rm -f dev/$name; cp -a /dev/$name dev/$name 2>/dev/null || "
          "{ : >dev/$name; mount --bind /dev/$name dev/$name; }; done; "
          "cp -a /dev/null node 2>/dev/null || :; mkdir sys; mount --rbind /sys sys; "
          "for name in socket fifo; do : >mounted/$name; "
          "mount --bind " +
          elsewhere +
          "/$name mounted/$name; done; "
          ": >mounted/node; mount --bind /dev/null mounted/node'");
  const Listener systemd(host.outside("/run/systemd/private"));
  const Listener in_file_system(host.outside("/socket"));
  const Listener in_network(std::string("\0valta-probe", 12));
  const Listener mounted(elsewhere + "/socket");
  mkfifo((elsewhere + "/fifo").c_str(), 0600);
  const std::array<Descriptor, 2> fifos = {
      Descriptor(open(host.outside("/fifo").c_str(), O_RDONLY | O_NONBLOCK)),
      Descriptor(open((elsewhere + "/fifo").c_str(), O_RDONLY | O_NONBLOCK))};
  const int memory = shmget(0x76616c74, 4096, IPC_CREAT | 0600);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  const rlimit few_files = {256, files.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few_files);
  const rlimit any_size = {RLIM_INFINITY, RLIM_INFINITY};
  const rlimit small_files = {512, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &small_files);
  const Inspection predicted = host.inspect("before --program /probe");
  setrlimit(RLIMIT_FSIZE, &any_size);
  setrlimit(RLIMIT_NOFILE, &files);
  shmctl(memory, IPC_RMID, nullptr);

  EXPECT_EQ(predicted.report["output"], "29 doors tried\n");
  for (const Listener* const listener : {&systemd, &in_file_system, &in_network, &mounted}) {
    EXPECT_FALSE(listener->was_called());
  }
  for (const Descriptor& fifo : fifos) {
    char byte = 0;
    EXPECT_LE(read(fifo.get(), &byte, 1), 0);
  }
  std::filesystem::remove_all(elsewhere);
  // The log is of an earlier run.
  EXPECT_EQ(predicted.report["outcome"], "unknown");
}

TEST_F(DryRun, CrossesFileSystemsAndSaysWhereItCannot) {
  host.load_module("zephanor");
  host.sh(
      "mkdir /o:d,d /layers /deep /kernel /two; file /tmp/file; file /one/file; "
      "file /plain/mounts 'mount --bind one two; "
      "mount --rbind proc kernel; mount -t tmpfs none kernel/fs; "
      "mount -t tmpfs none o:d,d; : >o:d,d/file; "
      "mount -t tmpfs none layers; mkdir layers/a layers/b layers/c; : >layers/a/file; "
      "mount -t overlay none -o lowerdir=layers/a:layers/b layers/c; "
      "mount -t overlay none -o lowerdir=layers/c:layers/b deep; "
      "cp var/log/zephanorvalta/uninstall/.d* layers; "
      "mount -t tmpfs -o size=64k,mode=755 none var/log/zephanorvalta; "
      "mkdir var/log/zephanorvalta/uninstall; mv layers/.d* var/log/zephanorvalta/uninstall; "
      "cat /dev/zero >var/log/zephanorvalta/full 2>/dev/null || :'");
  host.manifest({"FILE /o:d,d/file " + kEmpty, "FILE /tmp/file " + kEmpty,
                 "FILE /two/file " + kEmpty, "FILE /one/file x", "FILE /dev/file x",
                 "FILE /deep/file " + kEmpty});
  const Inspection predicted = host.inspect("before");
  EXPECT_EQ(predicted.report["status"], 141);
  EXPECT_EQ(predicted.report["outcome"], "unfinished");
  EXPECT_EQ(all_of(predicted.report["removed"], "path"),
            (Names{"/o:d,d/file", "/one/file", "/tmp/file", "/two/file"}));
  EXPECT_EQ(all_of(predicted.report["findings"], "id"),
            (Names{"entry-outside", "log-full", "read-only", "uncertain"}));
}

TEST_F(DryRun, EndsARehearsalThatHangsAndSaysOnWhat) {
  host.sh("mkfifo /fifo");
  host.manifest({"FILE /fifo x"});
  const Inspection predicted = host.inspect("before --timeout 1");
  EXPECT_EQ(predicted.status, 2);
  EXPECT_EQ(predicted.report["outcome"], "unfinished");
  EXPECT_THAT(all_of(predicted.report["findings"], "id"), Contains("hangs"));
  EXPECT_THAT(all_of(predicted.report["findings"], "where"), Contains(HasSubstr("md5sum /fifo")));
}

TEST_F(DryRun, WaitsForNoFileSystemThatDoesNotAnswer) {
  SKIP_UNLESS_ROOT("serve a file system");
  host.load_module("zephanor");
  host.sh("mkdir /dead; file /file");
  host.manifest({"FILE /file " + kEmpty, "FILE /dead/file " + kEmpty});
  const DeadFileSystem dead(host.outside("/dead"));
  const Descriptor held(open(host.outside("/dead").c_str(), O_PATH));
  EXPECT_LT(seconds_of([&] {
              const Inspection predicted = host.inspect("before --timeout 5");
              EXPECT_EQ(all_of(predicted.report["removed"], "path"), Names{"/file"});
              EXPECT_THAT(all_of(predicted.report["findings"], "where"), Contains("/dead"));
            }),
            5);
  EXPECT_LT(seconds_of([&] {
              const Inspection checked = host.inspect("after --timeout 1");
              EXPECT_EQ(checked.status, 3);
              EXPECT_EQ(all_of(checked.report["findings"], "id"), Names{"mount-silent"});
              EXPECT_EQ(all_of(checked.report["findings"], "where"), Names{"/dead"});
            }),
            6);
}

TEST_F(DryRun, MountsNothing) {
  SKIP_UNLESS_ROOT("mount autofs");
  host.sh("mkdir /auto");
  host.manifest({"FILE /auto/file " + kEmpty});
  const Automount automount(host.outside("/auto"));
  const Inspection predicted = host.inspect("before");
  EXPECT_FALSE(automount.was_asked());
  EXPECT_EQ(predicted.report["status"], 0);
  EXPECT_THAT(all_of(predicted.report["findings"], "where"), Contains("/auto"));
}

TEST_F(DryRun, ReadsRegularFilesOnly) {
  const std::string manifest = kUninstallManifestPath;
  for (const std::string& path : {manifest, kLog, std::string("/etc/dkms/framework.conf"),
                                  std::string("/lib/systemd/system/u.service"),
                                  std::string("/etc/systemd/system/u.service.d/x.conf")}) {
    SCOPED_TRACE(path);
    host.manifest({"SERVICE u x"});
    host.sh("mkdir -p " + path.substr(0, path.rfind('/')) + "; rm -f " + path + "; mkfifo " + path);
    EXPECT_LT(seconds_of([&] {
                EXPECT_NE(host.inspect("before --timeout 1").report, nullptr);
                EXPECT_NE(host.inspect("after").report, nullptr);
              }),
              8);
    host.sh("rm " + path);
  }
}

TEST_F(DryRun, TakesMoreMountsThanFilesMayBeOpen) {
  host.sh(
      "mkdir /many; file /plain/mounts 'cd many; for name in 1 2 3 4 5 6 7 8; do mkdir $name; "
      "mount -t tmpfs none $name; for below in 1 2 3 4 5 6 7 8; do mkdir $name/$below; "
      "mount -t tmpfs none $name/$below; : >$name/$below/file; done; done'");
  host.manifest({"FILE /many/8/8/file " + kEmpty});
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  const rlimit few_files = {64, files.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few_files);
  const Inspection predicted = host.inspect("before");
  setrlimit(RLIMIT_NOFILE, &files);
  EXPECT_EQ(all_of(predicted.report["removed"], "path"), Names{"/many/8/8/file"});
}

/// A control group of its own for this process and its children, with a limit of memory.
class MemoryLimit {
 public:
  explicit MemoryLimit(const std::string& limit) {
    for (const auto& [hierarchy, file] :
         {std::pair("/sys/fs/cgroup/memory", "memory.limit_in_bytes"),
          std::pair("/sys/fs/cgroup", "memory.max")}) {
      group_ = std::string(hierarchy) + "/valta-tests";
      rmdir(group_.c_str());
      if (mkdir(group_.c_str(), 0755) == 0 && write(file, limit) &&
          write("cgroup.procs", std::to_string(getpid()))) {
        return;
      }
      rmdir(group_.c_str());
    }
    group_.clear();
  }
  ~MemoryLimit() {
    std::ofstream(group_.substr(0, group_.rfind('/')) + "/cgroup.procs") << getpid() << std::flush;
    rmdir(group_.c_str());
  }
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

  [[nodiscard]] bool is_set() const { return !group_.empty(); }

 private:
  [[nodiscard]] bool write(const char* file, const std::string& value) const {
    std::ofstream stream(group_ + "/" + file);
    stream << value << std::flush;
    return stream.good();
  }

  std::string group_;
};

TEST_F(DryRun, FillsNoMemoryThatOthersNeed) {
  const MemoryLimit limit("300M");
  if (!limit.is_set()) {
    GTEST_SKIP() << "this machine denies a control group for memory";
  }
  const pid_t bystander = fork();
  if (bystander == 0) {
    const std::vector<char> memory(100'000'000, 'x');
    pause();
    _exit(memory.front());
  }
  host.sh(
      "file /plain/mounts 'mkdir -p sys; mount --rbind /sys sys'; "
      "printf '4:memory:/valta-tests\\n0::/valta-tests\\n' >/proc/self/cgroup");
  for (const std::string fills :
       {"while :; do printf %010000d 1; done", "while :; do printf %010000d 1; done >/var/flood"}) {
    host.sh("tool /usr/sbin/dkms '" + fills + "'");
    const Inspection predicted = host.inspect("before --program /usr/sbin/dkms");
    EXPECT_EQ(predicted.status, 3);
    EXPECT_THAT(std::string(predicted.report["reason"]),
                HasSubstr(fills.ends_with("done") ? "its output" : "/var/flood"));
  }
  EXPECT_EQ(waitpid(bystander, nullptr, WNOHANG), 0);
  kill(bystander, SIGKILL);
  waitpid(bystander, nullptr, 0);
}

TEST_F(DryRun, ListsWhatWasInADirectoryThatIsMadeAnew) {
  host.sh("file /a/x; file /a/b/y; tool /usr/sbin/dkms 'rm -r /a; mkdir -p /a/b'");
  const Inspection predicted = host.inspect("before --program /usr/sbin/dkms");
  EXPECT_EQ(all_of(predicted.report["removed"], "path"), (Names{"/a/b/y", "/a/x"}));
}

TEST_F(DryRun, LeavesNothingBehindWhenKilled) {
  host.install_sample();
  host.sh("mkfifo /fifo");
  host.manifest({"FILE /fifo x"});
  const auto before = host.listing();
  for (const int milliseconds : {5, 20, 50, 100, 300}) {
    const pid_t child = host.start_inspecting("before");
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    for (int wait = 0; wait < 100 && host.is_inhabited(); ++wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_FALSE(host.is_inhabited()) << "killed after " << milliseconds << " ms";
    EXPECT_EQ(only_in(host.listing(), before), Names());
  }
}

TEST(Watch, ShowsOnATerminalWhatTakesLong) {
  const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY));
  if (grantpt(terminal.get()) + unlockpt(terminal.get()) != 0) {
    GTEST_SKIP() << "this machine has no pseudo-terminals";
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY), STDERR_FILENO);
    const auto sleep_and_answer = [] {
      std::this_thread::sleep_for(std::chrono::milliseconds(3500));
      return 7;
    };
    _exit(inspect::run_watched(sleep_and_answer, 10).value_or(1));
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 7);
  std::string shown;
  for (char c = 0; read(terminal.get(), &c, 1) == 1;) {
    shown += c;
  }
  EXPECT_THAT(shown, HasSubstr("Starting: 2 s"));
  EXPECT_TRUE(shown.ends_with("\r\033[K")) << shown;
}

TEST(Modules, UnloadingOneFreesTheOnesItUsed) {
  auto modules =
      inspect::parse_modules("b 1 0 - Live 0x0\na 1 2 b,c, Live 0x0\nc 1 1 - Live 0x0\n");
  EXPECT_EQ(inspect::unload_module(modules, "a"), "Module a is in use by: b c");
  EXPECT_EQ(inspect::unload_module(modules, "c"), "Module c is in use");
  EXPECT_EQ(inspect::unload_module(modules, "x-y"), "Module x-y is not currently loaded");
  EXPECT_EQ(inspect::unload_module(modules, "b"), std::nullopt);
  EXPECT_EQ(inspect::format_modules(modules), "a 1 1 c, Live 0x0\nc 1 1 - Live 0x0\n");
}

TEST(Mounts, AreReadWithTheirOddNames) {
  const auto mounts = inspect::parse_mountinfo(
      "3 1 8:1 / /a\\040b,c rw,nosuid shared:1 - ext4 /dev/x ro\nnonsense\n"
      "2 1 8:1 / / rw - overlay o rw\n");
  ASSERT_EQ(mounts.size(), 2U);
  EXPECT_EQ(mounts[0].point, "/a b,c");
  EXPECT_EQ(mounts[0].flags, static_cast<unsigned long>(MS_NOSUID | MS_RDONLY));
}
