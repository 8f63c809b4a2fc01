// The way there and back: a run by valta-driver-remove, and its undo, on throwaway hosts.

#include <filesystem>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "inspection.h"
#include "log/log.h"
#include "situations.h"
#include "throwaway_host.h"
#include "uninstall/install_root.h"
#include "uninstall/manifest.h"

using namespace valta;
using testing::HasSubstr;

namespace {

const std::string kRuns = "/var/lib/valta-driver-remove";
const std::string kRemove = "/valta-driver-remove ";
const std::string kSaved = "/root/saved.tar";

/// A host on which a stack is removed and put back.
class Removes : public Inspect, public testing::WithParamInterface<Situation> {
 protected:
  Removes() : Inspect("tar sha256sum cp head mount mv setsid sleep") {
    host.sh("cp /bin/real/sh /bin/sh");
  }

  /// All that a run may change, but for what no undo brings back: the times of directories, what
  /// depmod makes, and how often a module is used.
  [[nodiscard]] Listing state() const {
    Listing lines;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(host.outside(""))) {
      const std::string path = entry.path().string().substr(host.outside("").size());
      struct stat status {};
      lstat(entry.path().c_str(), &status);
      std::ostringstream line;
      line << std::oct << status.st_mode << std::dec << " " << status.st_uid << ":"
           << status.st_gid;
      if (S_ISREG(status.st_mode)) {
        line << " " << status.st_nlink << " names " << status.st_mtim.tv_sec << "."
             << status.st_mtim.tv_nsec << " " << std::hash<std::string>()(host.read(path));
      } else if (S_ISLNK(status.st_mode)) {
        line << " " << std::filesystem::read_symlink(entry.path()).string();
      }
      lines[path] = path.starts_with("/run/systemd/units/") ? "active" : line.str();
    }
    std::istringstream modules(host.read("/proc/modules"));
    for (std::string module; std::getline(modules, module);) {
      lines["module " + module.substr(0, module.find(' '))] = "loaded";
    }
    std::erase_if(lines, [](const auto& line) {
      const std::string& path = line.first;
      return path == "module " || path.starts_with("/proc") || path.starts_with("/plain") ||
             path.starts_with("/dev") || path.starts_with(kRuns) || path.starts_with(kSaved) ||
             path == "/run/commands.sh" || path.ends_with("/modules.dep");
    });
    return lines;
  }

  /// Does a run that saves, in whichever way this host allows it; whether it saved.
  bool run_saving() {
    if (host.command(kRemove + "--yes").status < 2) {
      return true;
    }
    host.inspect("before --save " + kSaved);
    host.command("/valta-driver-uninstaller");
    return host.has(kSaved);
  }

  void expect_undone(const Listing& before, const std::string& run = "") {
    const Inspection undone = host.command(kRemove + "undo " + run);
    EXPECT_EQ(undone.status, 0) << undone.page;
    EXPECT_EQ(only_in(state(), before), Names());
    EXPECT_EQ(only_in(before, state()), Names());
  }
};

TEST_P(Removes, AndPutsAllBack) {
  meet(GetParam(), host);
  const Listing before = state();
  const bool is_saved = run_saving();
  RecordProperty("saved", !is_saved ? "nothing" : host.has(kSaved) ? "with --save" : "with remove");
  if (is_saved) {
    EXPECT_NE(state(), before);
    expect_undone(before, host.has(kSaved) ? kSaved : "");
  }
}

INSTANTIATE_TEST_SUITE_P(Each, Removes, testing::ValuesIn(situations_of_hosts()),
                         testing::PrintToStringParamName());

/// What a host can have that is hard to keep.
const std::string kOddNames =
    "mkdir -p /etc/zephanor/-d; file /etc/zephanor/-rf x; file '/etc/zephanor/a b' x; "
    "file '/etc/zephanor/new\nline' x; file \"/etc/zephanor/$(printf '\\377\\\\')\" x; "
    "file '/etc/zephanor/*' x; ln -s '/nowhere\n' /etc/zephanor/link; mkfifo /etc/zephanor/fifo; "
    "ln /etc/zephanor/-rf /etc/zephanor/hard; chmod 4711 /etc/zephanor/-rf";

class RemovesTheSample : public Removes {
 protected:
  void SetUp() override {
    Removes::SetUp();
    host.install_sample();
    host.sh(kOddNames);
    setxattr(host.outside(odd).c_str(), "user.kept", "value", 5, 0);  // not on every tmpfs
    kept_attribute = attribute();
    before = state();
  }

  [[nodiscard]] std::string attribute() const {
    std::string value(5, ' ');
    getxattr(host.outside(odd).c_str(), "user.kept", value.data(), value.size());
    return value;
  }

  const std::string odd = "/etc/zephanor/a b";
  Listing before;
  std::string kept_attribute;
};

TEST_F(RemovesTheSample, WithNamesAndAttributesOfEveryKind) {
  const Inspection removed = host.command(kRemove + "--yes");
  EXPECT_EQ(removed.status, 1) << removed.page;
  EXPECT_FALSE(host.has("/etc/zephanor"));
  host.sh(std::string("rm ") + kUninstallManifestPath);
  expect_undone(before);
  EXPECT_EQ(attribute(), kept_attribute);
  EXPECT_EQ(host.read("/run/systemd/units/invocation:valta-agent.service"), "");
}

TEST_F(RemovesTheSample, AndFinishesAnUndoThatWasKilled) {
  host.command(kRemove + "--yes");
  for (const std::string tool : {"tar", "systemctl", "modprobe"}) {
    const std::string place = tool == "modprobe" ? "/sbin/" : "/usr/bin/";
    host.sh("mv " + place + tool + " /aside; tool " + place + tool +
            " 'case \"$*\" in *\" -x \"* | daemon-reload | zvrfs) head -c 1000000 | /aside \"$@\"; "
            "kill -KILL $PPID ;; *) exec /aside \"$@\" ;; esac'");
    EXPECT_EQ(host.command(kRemove + "undo").status, 137) << tool;
    EXPECT_NE(state(), before) << tool;
    host.sh("mv /aside " + place + tool);
  }
  expect_undone(before);
}

TEST_F(RemovesTheSample, AndPutsBackWhatAKilledRunRemoved) {
  // Not in the dry run, which has a directory of its own.
  host.sh(
      ": >/trace; echo 0 >/run/commands; tool /bin/sh '[ -e /dev/valta-driver-inspect ] || "
      "KILL_BEFORE=20; export KILL_BEFORE; exec /bin/real/sh /recording \"$@\"'");
  std::filesystem::copy_file(VALTA_SOURCE "/tests/host/recording-sh", host.outside("/recording"));
  before = state();
  EXPECT_EQ(host.command(kRemove + "--yes").status, 2);
  EXPECT_THAT(host.command(kRemove + "list").page, HasSubstr("unfinished, saved"));
  EXPECT_FALSE(host.has(std::string("/usr/local/valta-") + kStackVersion + "/bin/zvsmi"));
  expect_undone(before);
}

TEST_F(RemovesTheSample, WithoutTheTerminalThatItWasStartedFrom) {
  host.sh(
      "mv /sbin/rmmod /aside; tool /sbin/rmmod 'echo >/run/started; while [ ! -e /run/go ]; do "
      "sleep 0.1; done; exec /aside \"$@\"'");
  before = state();
  host.command(
      "await() { i=0; while [ ! -s $1 ] && [ $((i += 1)) -lt 500 ]; do sleep 0.1; done; }; "
      "setsid " +
      kRemove + "--yes & await /run/started; kill -HUP -$!; echo >/run/go; await " + kRuns +
      "/*/after.json; rm /run/started /run/go");
  EXPECT_THAT(host.command(kRemove + "list").page, HasSubstr("kept, saved"));
  expect_undone(before);
}

TEST_F(RemovesTheSample, OnlyWhenItCanBeSaved) {
  host.sh("mkdir -m 700 " + kRuns);
  const Inspection full = host.command("mount -t tmpfs -o size=64k none " + kRuns + "; " + kRemove +
                                       "--yes; echo status $?; echo left " + kRuns + "/*");
  EXPECT_THAT(full.page, HasSubstr("No space left on device"));
  EXPECT_THAT(full.page, HasSubstr("status 2\nleft " + kRuns + "/*\n"));
  EXPECT_EQ(host.inspect("before --save " + kSaved + "/x").status, 73);
  const std::string named = "FAULT=tmpfile /valta-driver-inspect before --save " + kSaved;
  EXPECT_THAT(host.command(named + " >/dev/null; echo $? /root/*").page,
              HasSubstr("1 /root/saved.tar /root/saved.tar.state\n"));
  host.sh("mv /usr/bin/tar /aside");
  EXPECT_EQ(host.command(kRemove + "--yes").status, 2);
  EXPECT_EQ(host.command(kRemove).status, 2) << "there is no terminal to ask at";
  host.sh("mv /aside /usr/bin/tar");
  EXPECT_EQ(only_in(before, state()), Names());

  host.sh(
      "mv /usr/bin/sha256sum /aside; "
      "tool /usr/bin/sha256sum '/aside \"$@\" && echo >>/etc/zephanor/-rf'");
  EXPECT_THAT(host.command(kRemove + "--yes").page, HasSubstr("has changed since it was saved"));
  EXPECT_TRUE(host.has("/etc/zephanor/-rf"));

  host.command("/valta-driver-uninstaller");
  EXPECT_THAT(host.command("/valta-driver-inspect before --save /root/idle.tar >/dev/null").page,
              HasSubstr("nothing is saved: a run would remove nothing"));
}

TEST_F(RemovesTheSample, AndLeavesAManifestThatWasRepairedSince) {
  host.command(kRemove + "--yes");
  host.sh(std::string("echo 'FILE /repaired 0' >>") + kUninstallManifestPath);
  before[kUninstallManifestPath] = state()[kUninstallManifestPath];
  expect_undone(before);
}

TEST_F(RemovesTheSample, OnlyWhenNothingBlocksTheRun) {
  host.sh(std::string("ln -s /elsewhere ") + kLogPath);
  before = state();
  EXPECT_EQ(host.inspect("before").status, 1);
  EXPECT_EQ(host.command(kRemove + "--yes").status, 2);
  EXPECT_EQ(state(), before);
}

TEST_F(RemovesTheSample, AndOverwritesNothingNewer) {
  host.command(kRemove + "--yes");
  host.sh("file '/etc/zephanor/a b' newer; file /etc/machine-id other");
  const Inspection refused = host.command(kRemove + "undo");
  EXPECT_EQ(refused.status, 2);
  EXPECT_THAT(refused.page, HasSubstr("of another host"));
  EXPECT_THAT(refused.page, HasSubstr("/etc/zephanor/a b has changed since the run"));
  EXPECT_EQ(host.read("/etc/zephanor/a b"), "newer");
  EXPECT_EQ(host.command(kRemove + "undo --force").status, 0);
  EXPECT_EQ(attribute(), kept_attribute);
  host.sh("for archive in " + kRuns + "/*/saved.tar; do echo >>$archive; done");
  EXPECT_THAT(host.command(kRemove + "undo --force").page, HasSubstr("the checksum of"));
}

TEST_F(RemovesTheSample, AndNamesWhatThePredictionDidNotHave) {
  host.sh("tool /sbin/rmmod 'rm -f /usr/local/valta-*/etc/site.conf; : >/plain/proc/modules'");
  EXPECT_THAT(host.command(kRemove + "--yes").page,
              HasSubstr("Removed, but neither predicted nor saved: /usr/local/valta-"));
}

}  // namespace
