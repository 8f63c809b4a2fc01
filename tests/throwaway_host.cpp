#include "throwaway_host.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log/log.h"
#include "uninstall/install_root.h"
#include "uninstall/manifest.h"

namespace fs = std::filesystem;

namespace valta {
namespace {

constexpr const char* kInspect = "/valta-driver-inspect";
constexpr const char* kHostScripts = VALTA_SOURCE "/tests/host/";

/// The tools for the commands of a test.
constexpr const char* kFunctions =
    "file() { mkdir -p \"${1%/*}/\"; printf %s \"$2\" >\"$1\"; }\n"
    "tool() { printf '#!/bin/real/sh\\n%s\\n' \"$2\" >\"$1\"; chmod +x \"$1\"; }\n";

std::string contents(const std::string& path) {
  std::ostringstream text;  // in blocks: a program with sanitizers has tens of megabytes
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

const std::string kPlaceholder = "@VERSION@";

std::string sample_file(const std::string& what) { return kHostScripts + ("sample." + what); }

std::string replaced(std::string text, const std::string& old, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(old, at)) != std::string::npos; at += with.size()) {
    text.replace(at, old.size(), with);
  }
  return text;
}

std::string quote(const std::string& path) { return " '" + path + "'"; }

/// Calls a script of tests/host and returns its exit status.
int script(const std::string& name, const std::string& arguments) {
  const int status = std::system((quote(kHostScripts + name) + " " + arguments).c_str());
  return WEXITSTATUS(status);
}

/// Keeps `page`, if it is a report and nothing else, for scripts/check-reports.
void collect_report(const std::string& page) {
  std::ifstream file(page);
  if (file.peek() == '{' && nlohmann::json::accept(file)) {
    static int number = 0;
    fs::create_directories(VALTA_SCRATCH "/../reports");
    fs::copy_file(page,
                  VALTA_SCRATCH "/../reports/" + std::to_string(getpid()) + "-" +
                      std::to_string(++number) + ".json",
                  fs::copy_options::overwrite_existing);
  }
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

/// Whether throwaway hosts can be entered on this machine. A builder of packages may deny it: the
/// kernel denies user namespaces to a normal user in a chroot.
bool machine_allows_hosts() {
  static const bool allowed = [] {
    const pid_t child = fork();
    if (child == 0) {
      _exit(enter("/") ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0;
  }();
  return allowed || std::getenv("VALTA_EXPECT_MOUNTS") != nullptr;
}

/// Ends the test, from wherever it is.
[[noreturn]] void skip_test(const char* reason) {
  [&] { GTEST_SKIP() << reason; }();
  using testing::TestPartResult;
  throw testing::AssertionException(TestPartResult(TestPartResult::kSkip, nullptr, 0, reason));
}

/// Whether a dry run can prevent changes of access times. In a user namespace, it cannot change
/// that option of a mount.
bool keeps_access_times() {
  struct statvfs mounted {};
  return getuid() == 0 ||
         (statvfs(VALTA_SCRATCH, &mounted) == 0 && (mounted.f_flag & ST_NOATIME) != 0);
}

}  // namespace

void PrintTo(ResultCode code, std::ostream* stream) { *stream << static_cast<int>(code); }

void PrintTo(ModuleStatus status, std::ostream* stream) { *stream << static_cast<int>(status); }

bool machine_allows_mounts() {
  return std::getenv("VALTA_EXPECT_MOUNTS") != nullptr || script("probe-mounts", "") == 0;
}

ThrowawayHost::ThrowawayHost(const std::string& tools) {
  if (!machine_allows_hosts()) {
    skip_test("this machine denies chroot");
  }
  umask(S_IWGRP | S_IWOTH);  // with another one, the inspector reports the directories as `trust`
  std::string pattern = VALTA_SCRATCH "/host-XXXXXX";
  fs::create_directories(VALTA_SCRATCH);
  scratch_ = mkdtemp(pattern.data());
  root_ = scratch_ + "/root";
  setenv("MORE_TOOLS", tools.c_str(), 1);
  EXPECT_EQ(script("lay-out", quote(root_) + quote(VALTA_PROGRAM)), 0);
}

ThrowawayHost::~ThrowawayHost() { fs::remove_all(scratch_); }

void ThrowawayHost::install_sample() { EXPECT_EQ(script("install-sample", quote(root_)), 0); }

void ThrowawayHost::manifest(const std::vector<std::string>& lines) {
  const std::string path = root_ + kUninstallManifestPath;
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path);
  for (const auto& line : lines) {
    file << line << "\n";
  }
}

void ThrowawayHost::load_module(const std::string& name) {
  std::ofstream(root_ + "/proc/modules", std::ios::app) << name << " 16384 0 - Live 0x0\n";
}

void ThrowawayHost::sh(const std::string& commands) {
  std::ofstream(root_ + "/run/commands.sh") << "set -e\n" << kFunctions << commands;
  EXPECT_EQ(script("enter", quote(root_) + " /bin/real/sh /run/commands.sh"), 0) << commands;
  fs::remove(root_ + "/run/commands.sh");
}

std::string ThrowawayHost::read(const std::string& path) const { return contents(root_ + path); }

bool ThrowawayHost::has(const std::string& path) const {
  return fs::exists(fs::symlink_status(root_ + path));
}

std::string ThrowawayHost::files() const {
  const std::string list = scratch_ + "/files";
  EXPECT_EQ(script("list-files", quote(root_) + " >" + quote(list)), 0);
  return contents(list);
}

std::map<std::string, std::string> ThrowawayHost::listing() const {
  std::map<std::string, std::string> lines;
  for (const auto& entry : fs::recursive_directory_iterator(root_)) {
    lines[entry.path()];  // moves the access times of the directories, so they are taken later
  }
  lines.clear();
  const bool with_access_times = keeps_access_times();
  for (const auto& entry : fs::recursive_directory_iterator(root_)) {
    const std::string path = entry.path().string().substr(root_.size());
    struct stat status {};
    lstat(entry.path().c_str(), &status);
    std::ostringstream line;
    line << status.st_ino << " mode " << std::oct << status.st_mode << std::dec << " owners "
         << status.st_uid << ":" << status.st_gid << " size " << status.st_size << " modified "
         << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec << " changed "
         << status.st_ctim.tv_sec << "." << status.st_ctim.tv_nsec;
    if (with_access_times && !path.starts_with("/lib") && path != kInspect) {
      line << " accessed " << status.st_atim.tv_sec << "." << status.st_atim.tv_nsec;
    }
    lines[path] = line.str();
  }
  return lines;
}

void ThrowawayHost::put_faulty_programs() {
  const auto options = fs::copy_options::overwrite_existing;
  fs::copy_file(VALTA_FAULTY_PROGRAM, root_ + "/valta-driver-uninstaller", options);
  fs::copy_file(VALTA_FAULTY_INSPECT, root_ + kInspect, options);
  fs::copy_file(VALTA_FAULTY_REMOVE, root_ + "/valta-driver-remove", options);
}

void ThrowawayHost::put_probe() { fs::copy_file(VALTA_PROBE, root_ + "/probe"); }

Inspection ThrowawayHost::inspect(const std::string& arguments, const std::string& path,
                                  const std::string& form, const std::string& options) {
  const std::string page = scratch_ + "/page";
  const int status = script("enter", "-r " + options + " -e --ignore-signal=CHLD -e PATH=" + path +
                                         quote(root_) + " " + kInspect + " " + arguments + " " +
                                         form + " >" + quote(page) + " 2>&1 5</");
  collect_report(page);
  const std::string text = contents(page);
  return {status, nlohmann::json::parse(text, nullptr, false), text};
}

Inspection ThrowawayHost::command(const std::string& commands) {
  const std::string page = scratch_ + "/page";
  std::ofstream(root_ + "/run/commands.sh") << kFunctions << commands;
  const int status =
      script("enter", "-r -e PATH=/usr/sbin:/usr/bin:/sbin:/bin" + quote(root_) +
                          " /bin/real/sh /run/commands.sh >" + quote(page) + " 2>&1");
  return {status, nullptr, contents(page)};
}

std::string ThrowawayHost::follow(const std::map<std::string, std::string>& part, bool heeds) {
  const std::string directory = root_ + "/run/follow/";
  fs::create_directory(directory);
  std::ofstream(directory + "functions") << kFunctions;
  for (const auto& [name, text] : part) {
    std::ofstream(directory + name) << text;
  }
  fs::copy_file(std::string(kHostScripts) + "follow-page", directory + "follow-page");
  const std::string transcript = scratch_ + "/transcript";
  script("enter", "-r" + quote(root_) + " /bin/real/sh /run/follow/follow-page " +
                      (heeds ? "heed" : "") + " >" + quote(transcript) + " 2>&1");
  for (const auto& entry : fs::directory_iterator(directory)) {
    collect_report(entry.path());
  }
  return contents(transcript);
}

pid_t ThrowawayHost::start_inspecting(const std::string& verb) {
  const pid_t child = fork();
  if (child == 0) {
    execl((std::string(kHostScripts) + "enter").c_str(), "enter", "-r", "-e",
          ("HOST=" + scratch_).c_str(), root_.c_str(), kInspect, verb.c_str(), nullptr);
    _exit(127);
  }
  return child;
}

bool ThrowawayHost::is_inhabited() const {
  const fs::directory_iterator processes("/proc");
  return std::any_of(begin(processes), end(processes), [&](const auto& process) {
    return contents(process.path() / "environ").find("HOST=" + scratch_) != std::string::npos;
  });
}

Outcome ThrowawayHost::run(const Circumstances& circumstances) {
  std::ofstream(root_ + "/trace").flush();
  std::ofstream(root_ + "/run/commands") << "0\n";
  std::string environment = " -e PATH=/usr/bin:/bin -e " + circumstances.variable;
  if (!circumstances.fault.empty()) {
    fs::copy_file(VALTA_FAULTY_PROGRAM, root_ + "/valta-driver-uninstaller",
                  fs::copy_options::overwrite_existing);
    environment += " -e FAULT=" + circumstances.fault;
  }
  const std::string output = scratch_ + "/output";
  const std::string console = scratch_ + "/console";
  setenv("OUTPUT", output.c_str(), 1);
  setenv("CONSOLE", console.c_str(), 1);
  const int status =
      script("enter", VALTA_ENTER_OPTIONS " " + circumstances.options + environment + quote(root_) +
                          " /valta-driver-uninstaller " + circumstances.streams);
  return {status, contents(output), contents(console), read("/trace"), read(kLog)};
}

void ThrowawayHost::call(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    EXPECT_TRUE(enter(root_)) << "a throwaway host needs chroot, or user namespaces";
    if (!testing::Test::HasFailure()) {
      setenv("PATH", "/usr/bin:/bin:/sbin:/usr/sbin", 1);
      zvlogger::init("/log");
      body();
    }
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

std::string expected_of_sample(const std::string& what) {
  return replaced(contents(sample_file(what)), kPlaceholder, kStackVersion);
}

void expect_of_sample(const std::string& what, const std::string& text) {
  if (std::getenv("RENEW_SAMPLE") != nullptr) {
    std::ofstream(sample_file(what)) << replaced(text, kStackVersion, kPlaceholder);
  } else {
    EXPECT_EQ(text, expected_of_sample(what)) << "scripts/renew-sample writes it again";
  }
}

}  // namespace valta
