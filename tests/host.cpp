#include "host.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace valta {
namespace {

std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Calls one of the scripts that lay a host out and enter it. Returns its exit status.
int script(const std::string& name_and_arguments) {
  const int status = std::system((VALTA_HOST_SCRIPTS "/" + name_and_arguments).c_str());
  return WEXITSTATUS(status);
}

/// Root enters by chroot, a normal user through a user namespace.
bool enter(const std::string& root) {
  const uid_t user = getuid();
  if (user != 0) {
    if (unshare(CLONE_NEWUSER) != 0) {
      return false;
    }
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
  }
  return chroot(root.c_str()) == 0 && chdir("/") == 0 && getuid() == 0;
}

}  // namespace

Host::Host() {
  std::string pattern = fs::temp_directory_path() / "valta-host-XXXXXX";
  scratch_ = mkdtemp(pattern.data());
  root_ = scratch_ + "/root";
  EXPECT_EQ(script("lay-out " + root_ + " " + VALTA_PROGRAM), 0);
}

Host::~Host() { fs::remove_all(scratch_); }

void Host::install_sample() { EXPECT_EQ(script("install-sample " + root_), 0); }

void Host::manifest(const std::vector<std::string>& lines) {
  fs::create_directories(fs::path(root_ + kManifest).parent_path());
  std::ofstream file(root_ + kManifest);
  for (const auto& line : lines) {
    file << line << "\n";
  }
}

void Host::load_module(const std::string& name) {
  std::ofstream(root_ + "/proc/modules", std::ios::app) << name << " 16384 0 - Live 0x0\n";
}

void Host::sh(const std::string& commands) {
  std::ofstream(root_ + "/run/commands.sh")
      << "set -e\n"
         "file() { mkdir -p \"${1%/*}/\"; printf %s \"$2\" >\"$1\"; }\n"
         "tool() { printf '#!/bin/sh.real\\n%s\\n' \"$2\" >\"$1\"; }\n"
      << commands;
  EXPECT_EQ(script("enter " + root_ + " /bin/sh.real /run/commands.sh"), 0) << commands;
  fs::remove(root_ + "/run/commands.sh");
}

std::string Host::read(const std::string& path) const { return contents(root_ + path); }

bool Host::has(const std::string& path) const {
  return fs::exists(fs::symlink_status(root_ + path));
}

std::string Host::files() const {
  EXPECT_EQ(script("list-files " + root_ + " >" + scratch_ + "/files"), 0);
  return contents(scratch_ + "/files");
}

Outcome Host::run(const std::string& variable, const std::string& options,
                  const std::string& reader) {
  std::ofstream(root_ + "/trace").flush();
  std::ofstream(root_ + "/run/commands") << "0\n";
  const std::string output = scratch_ + "/output";
  const std::string console = scratch_ + "/console";
  const int status =
      script("enter " VALTA_ENTER_OPTIONS " " + options + " -e PATH=/usr/bin:/bin -e " + variable +
             " " + root_ + " /valta-driver-uninstaller " +
             (reader.empty() ? "2>" + console + " >" + output : "2>&1 >" + output + "|" + reader));
  return {status, contents(output), contents(console), read("/trace"), read(kLog)};
}

void Host::call(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    EXPECT_TRUE(enter(root_)) << "a throwaway host needs chroot, or user namespaces";
    if (!testing::Test::HasFailure()) {
      setenv("PATH", "/usr/bin:/bin:/sbin:/usr/sbin", 1);
      body();
    }
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace valta
