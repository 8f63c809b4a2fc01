#include "host.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace valta {
namespace fs = std::filesystem;
namespace {

constexpr int kNoHost = 125;

void require(bool done, const std::string& what) {
  if (!done) {
    std::perror(what.c_str());
    _exit(kNoHost);
  }
}

std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  require(!(std::ofstream(path, std::ios::binary) << content << std::flush).fail(), path);
}

/// A sanitized program needs the real /proc: to find its stack, and to look for leaks. The host's
/// plain files are put back on top of it.
void mount_proc(const std::string& proc) {
  const std::string plain[] = {proc + "/modules", proc + "/self/cgroup"};
  const int files[] = {open(plain[0].c_str(), O_PATH), open(plain[1].c_str(), O_PATH)};
  require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  require(mount("/proc", proc.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "mount of /proc");
  for (int i = 0; i < 2; ++i) {
    const std::string source = "/proc/self/fd/" + std::to_string(files[i]);
    require(mount(source.c_str(), plain[i].c_str(), nullptr, MS_BIND, nullptr) == 0, plain[i]);
    close(files[i]);
  }
}

/// Root enters by chroot, a normal user through a user namespace.
void enter(const std::string& root, uid_t uid, bool with_real_proc) {
  const std::string id_map = std::to_string(uid) + " " + std::to_string(getuid()) + " 1\n";
  const bool user_namespace = getuid() != 0;
  const int spaces = (user_namespace ? CLONE_NEWUSER : 0) | (with_real_proc ? CLONE_NEWNS : 0);
  require(spaces == 0 || unshare(spaces) == 0, "user namespaces (normal user) or mount namespaces");
  if (user_namespace) {
    write("/proc/self/uid_map", id_map);
  }
  if (with_real_proc) {
    mount_proc(root + "/proc");
  }
  require(chroot(root.c_str()) == 0 && chdir("/") == 0, "chroot " + root);
  require(getuid() == uid || setuid(uid) == 0, "setuid");
}

void set_up(const std::string& script_and_arguments) {
  const std::string command = VALTA_HOST_SCRIPTS "/" + script_and_arguments;
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

}  // namespace

Host::Host() {
  std::string pattern = fs::temp_directory_path() / "valta-host-XXXXXX";
  scratch_ = mkdtemp(pattern.data());
  root_ = scratch_ + "/root";
  set_up("lay-out " + root_ + " " + VALTA_PROGRAM);
  laid_out_ = leaves();
}

Host::~Host() { fs::remove_all(scratch_); }

void Host::install_sample() { set_up("install-sample " + root_); }

void Host::manifest(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) {
    text += line + "\n";
  }
  file(kManifest, text);
}

void Host::load_module(const std::string& name, int uses) {
  file("/proc/modules",
       read("/proc/modules") + name + " 16384 " + std::to_string(uses) + " - Live 0x0\n");
}

void Host::file(const std::string& path, const std::string& content) {
  write(root_ + path, content);
}

void Host::sh(const std::string& commands) {
  const std::string line =
      "file() { mkdir -p \"${1%/*}\"; printf %s \"$2\" >\"$1\"; }\n"
      "tool() { printf '#!/bin/sh.real\\n%s\\n' \"$2\" >\"$1\"; }\n" +
      commands;
  EXPECT_EQ(child([&] { execl("/bin/sh.real", "sh", "-ec", line.c_str(), nullptr); }), 0) << line;
}

std::string Host::read(const std::string& path) const { return contents(root_ + path); }

bool Host::has(const std::string& path) const {
  return fs::exists(fs::symlink_status(root_ + path));
}

std::set<std::string> Host::leaves() const {
  std::set<std::string> paths;
  for (const auto& item : fs::recursive_directory_iterator(root_)) {
    const std::string path = item.path().string().substr(root_.size());
    if (item.is_symlink() || !item.is_directory()) {
      paths.insert(path);
    } else if (fs::is_empty(item.path())) {
      paths.insert(path + "/");
    }
  }
  return paths;
}

std::string Host::files() const {
  std::string text;
  for (const auto& path : leaves()) {
    text += laid_out_.contains(path) ? "" : path + "\n";
  }
  return text;
}

int Host::child(const std::function<void()>& body) const {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    enter(root_, 0, false);
    setenv("PATH", "/usr/bin:/bin:/sbin:/usr/sbin", 1);
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

void Host::call(const std::function<void()>& body) { EXPECT_EQ(child(body), 0); }

Outcome Host::run(const std::string& variable, uid_t uid) {
  const std::string output = scratch_ + "/output";
  const std::string console = scratch_ + "/console";
  file("/trace");
  file("/run/commands", "0\n");
  const pid_t pid = fork();
  if (pid == 0) {
    require(std::freopen(output.c_str(), "w", stdout) != nullptr, output);
    require(std::freopen(console.c_str(), "w", stderr) != nullptr, console);
    enter(root_, uid, VALTA_SANITIZED != 0);
    const char* const environment[] = {"PATH=/usr/bin:/bin", variable.c_str(), nullptr};
    const char* const program = "/valta-driver-uninstaller";
    execle("/emulator", "/emulator", program, nullptr, environment);  // for another processor's
    execle(program, program, nullptr, environment);
    require(false, program);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return {WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status), contents(output),
          contents(console), read("/trace"), read(kLog)};
}

}  // namespace valta
