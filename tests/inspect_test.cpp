// The program that looks before and after a run: on throwaway hosts, where what it foretells is
// compared with the run that follows, and its judgement of what a run left.

#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <regex>
#include <set>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>

#include "inspect/host/modules.h"
#include "inspect/host/mounts.h"
#include "inspect/host/processes.h"
#include "inspect/report/run_check.h"
#include "situations.h"
#include "throwaway_host.h"
#include "uninstall/install_root.h"
#include "uninstall/manifest.h"
#include "utils/files.h"
#include "utils/text.h"

using namespace valta;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

using Names = std::set<std::string>;
using Listing = std::map<std::string, std::string>;

class Inspect : public testing::Test {
 protected:
  Inspect() { host.put_faulty_programs(); }

  void SetUp() override {
    if (VALTA_EMULATED) {
      GTEST_SKIP() << "qemu-user makes no namespaces";
    }
  }

  ThrowawayHost host;
};

Names all_of(const nlohmann::json& objects, const char* field) {
  Names names;
  for (const auto& object : objects) {
    names.insert(object[field].get<std::string>());
  }
  return names;
}

/// The lines of a listing that another one does not have.
Names only_in(const Listing& listing, const Listing& other) {
  Names lines;
  for (const auto& [path, attributes] : listing) {
    if (const auto found = other.find(path); found == other.end() || found->second != attributes) {
      lines.insert(path + " " + attributes);
    }
  }
  return lines;
}

Names paths_gone(const Listing& before, const Listing& after) {
  Names paths;
  for (const auto& [path, attributes] : before) {
    // Where the scripted systemctl keeps what a real one keeps in memory.
    if (!after.contains(path) && !path.starts_with("/run/active/")) {
      paths.insert(path);
    }
  }
  return paths;
}

class Foretells : public Inspect, public testing::WithParamInterface<Situation> {};

TEST_P(Foretells, TheRunAndChangesNothing) {
  meet(GetParam(), host);
  const auto before = host.listing();
  const Inspection foretold = host.inspect("before");
  EXPECT_EQ(only_in(host.listing(), before), Names());

  const Outcome run = host.run();
  EXPECT_EQ(foretold.report["status"], run.status);
  EXPECT_EQ(foretold.report["console"], run.console);
  EXPECT_EQ(foretold.report["output"], run.output);
  EXPECT_EQ(foretold.report["log"], run.log);
  EXPECT_EQ(all_of(foretold.report["removed"], "path"), paths_gone(before, host.listing()));
  EXPECT_EQ(foretold.report["outcome"], GetParam().outcome);
  if (!GetParam().finding.empty()) {
    EXPECT_THAT(all_of(foretold.report["findings"], "id"), Contains(GetParam().finding));
  } else if (GetParam().outcome == "done") {
    EXPECT_EQ(foretold.status, 0);
  }

  // What a run came to is judged as it was foretold to be judged.
  const Inspection judged = host.inspect("after --status " + std::to_string(run.status));
  const std::string outcome = judged.report["outcome"];
  EXPECT_EQ(outcome, GetParam().outcome);
  EXPECT_EQ(all_of(judged.report["findings"], "id").contains("run-again"),
            outcome == "busy" || outcome == "nothing-done");
}

std::vector<Situation> situations_of_hosts() {
  std::vector<Situation> list = situations();
  // A fault of the C library is not the host's, and a kernel that does as it likes has no stand-in.
  std::erase_if(list, [](const Situation& situation) {
    return !situation.fault.empty() ||
           situation.prepare.find("tool /sbin/rmmod") != std::string::npos;
  });
  return list;
}

INSTANTIATE_TEST_SUITE_P(Each, Foretells, testing::ValuesIn(situations_of_hosts()),
                         testing::PrintToStringParamName());

TEST_F(Inspect, FindsNothingButTheChangedFileInTheSample) {
  host.install_sample();
  const auto before = host.listing();
  const Inspection foretold = host.inspect("before");
  EXPECT_EQ(foretold.status, 1);
  EXPECT_EQ(all_of(foretold.report["findings"], "id"),
            (Names{"file-changed", "directory-stays", "unseen"}));
  EXPECT_EQ(foretold.report["unloaded"], nlohmann::json({"zvrfs", "zvr_peer_mem_drv", "zephanor"}));
  host.run();
  EXPECT_EQ(all_of(foretold.report["removed"], "path"), paths_gone(before, host.listing()));
  const Inspection judged = host.inspect("after --status 0");
  EXPECT_EQ(judged.status, 1);
  EXPECT_EQ(all_of(judged.report["findings"], "id"), (Names{"file-changed", "directory-stays"}));
}

TEST_F(Inspect, FindsWhatIsOddAboutAHost) {
  host.load_module("zephanor");
  host.sh(
      "umask 0; mkdir -p /var/log/zephanorvalta; umask 22; "
      "mkdir -p /etc/systemd/system/x.wants /run/systemd/generator /etc/dkms/framework.conf.d; "
      "for unit in masked copied refusing t@; do file /lib/systemd/system/$unit.service; done; "
      "ln -s /dev/null /etc/systemd/system/masked.service; file "
      "/run/systemd/generator/copied.service; "
      "file /lib/systemd/system/refusing.service RefuseManualStop=no; "
      "file /lib/systemd/system/refusing.service.d/x.conf \"RefuseManualStop = Yes\"; "
      "ln -s /lib/systemd/system/t@.service /etc/systemd/system/x.wants/t@1.service; "
      "file /etc/dkms/framework.conf.d/x.conf dkms_tree=/elsewhere; "
      "file /elsewhere/valta/1/source/a; file /usr/src/valta-1/dkms.conf; "
      "ln -s /missing /etc/systemd/system/x.wants/t@2.service; "
      "ln -s /missing /etc/systemd/system/x.wants/gone.service; : >/run/active/copied; "
      "file /lib/modules/6.1/updates/zvrfs.ko.xz; file /not-compared; file /last; file /no-digest; "
      "file \"/quote'd\"; "
      "file /v/lib64/libcudart.so; file /v/shared; rm /usr/bin/md5sum; file /etc/zephanor/x; "
      "mkdir /opt; ln -s /usr/sbin/dkms /opt/dkms");
  host.manifest({"VALTA /v", "FILE /usr/src/valta-1/dkms.conf x", "DKMS latest",
                 "DIR /usr/src/valta-1 ", "RFILE /v/shared " + kEmpty, "FILE relative " + kEmpty,
                 "FILE /quote'd " + kEmpty, "FILE /no-digest", "FILE /a blank " + kEmpty,
                 "FILE /not-compared x", "SERVICE masked  ", "SERVICE copied x",
                 "SERVICE refusing x", "SERVICE t@ x", "SERVICE t@0 x", "SERVICE gone x",
                 "FILE /last x", "unknown"});
  const Inspection foretold = host.inspect("before", "/opt:/usr/bin:/bin");
  EXPECT_EQ(foretold.status, 2);
  EXPECT_THAT(all_of(foretold.report["findings"], "id"),
              testing::IsSupersetOf({"dkms-order", "dkms-tree", "manifest-line", "tool-missing",
                                     "tool-odd", "trust", "unit-copied", "unit-instance",
                                     "unit-masked", "unit-refuses", "unit-template", "unseen"}));
  Names lines;
  for (const auto& finding : foretold.report["findings"]) {
    if (finding["id"] == "manifest-line") {
      const std::string where = finding["where"];
      lines.insert(where.substr(where.rfind(':') + 1));
    }
  }
  EXPECT_EQ(lines, (Names{"6", "7", "8", "9", "11", "18"}));

  EXPECT_THAT(all_of(foretold.report["findings"], "where"), Not(Contains("t@2")));

  EXPECT_EQ(host.run().status, 145);
  host.load_module("zvrfs");
  const Inspection judged = host.inspect("after");
  EXPECT_EQ(judged.status, 2);
  EXPECT_THAT(all_of(judged.report["findings"], "id"),
              testing::IsSupersetOf({"configuration-left", "directory-stays", "dkms-registered",
                                     "dkms-sources", "file-not-compared", "manifest-left",
                                     "module-built", "module-loaded", "shared-kept", "unit-active",
                                     "unit-instance", "unit-known", "unit-link"}));
}

TEST_F(Inspect, CrossesFileSystemsAndSaysWhereItCannot) {
  host.load_module("zephanor");
  host.sh(
      "mkdir /o:d,d /layers /deep /kernel; file /tmp/file; file /plain/mounts '"
      "mount --rbind proc kernel; mount -t tmpfs none kernel/fs; "
      "mount -t tmpfs none o:d,d; : >o:d,d/file; "
      "mount -t tmpfs none layers; mkdir layers/a layers/b layers/c; : >layers/a/file; "
      "mount -t overlay none -o lowerdir=layers/a:layers/b layers/c; "
      "mount -t overlay none -o lowerdir=layers/c:layers/b deep; "
      "cp var/log/zephanorvalta/uninstall/.d* layers; "
      "mount -t tmpfs -o size=64k,mode=755 none var/log/zephanorvalta; "
      "mkdir var/log/zephanorvalta/uninstall; mv layers/.d* var/log/zephanorvalta/uninstall; "
      "cat /dev/zero >var/log/zephanorvalta/full 2>/dev/null || :'");
  host.manifest(
      {"FILE /o:d,d/file " + kEmpty, "FILE /tmp/file " + kEmpty, "FILE /deep/file " + kEmpty});
  const Inspection foretold = host.inspect("before");
  EXPECT_EQ(foretold.report["status"], 141);
  EXPECT_EQ(all_of(foretold.report["removed"], "path"), (Names{"/o:d,d/file", "/tmp/file"}));
  EXPECT_EQ(all_of(foretold.report["findings"], "id"),
            (Names{"log-full", "manifest-left", "uncertain"}));
}

TEST_F(Inspect, EndsARehearsalThatHangsAndSaysOnWhat) {
  host.sh("mkfifo /fifo");
  host.manifest({"FILE /fifo x"});
  const Inspection foretold = host.inspect("before --timeout 1");
  EXPECT_EQ(foretold.status, 2);
  EXPECT_EQ(foretold.report["outcome"], "unfinished");
  EXPECT_THAT(all_of(foretold.report["findings"], "where"), Contains(HasSubstr("md5sum /fifo")));
}

TEST_F(Inspect, GivesTheProgramNoWayToTheHostAndNoLogOfAnother) {
  host.sh("file " + kLog + " '" + kSucceeded + "'; tool /usr/sbin/dkms '" +
          "for what in CapEff NoNewPrivs NSsid; do sed -n s/^$what:.//p /proc/self/status; done; "
          "sed -n \"s/^Max core file size *1 .*/no core/p\" /proc/self/limits; "
          "[ ! -e /proc/self/fd/5 ] || echo open'");
  const Inspection foretold = host.inspect("before --program /usr/sbin/dkms");
  EXPECT_EQ(foretold.report["output"], "000000000000001b\n1\n2\nno core\n");
  EXPECT_EQ(foretold.report["outcome"], "unknown");
}

TEST_F(Inspect, ListsWhatWasInADirectoryThatIsMadeAnew) {
  host.sh("file /a/x; file /a/b/y; tool /usr/sbin/dkms 'rm -r /a; mkdir -p /a/b'");
  const Inspection foretold = host.inspect("before --program /usr/sbin/dkms");
  EXPECT_EQ(all_of(foretold.report["removed"], "path"), (Names{"/a/b/y", "/a/x"}));
}

TEST_F(Inspect, PrintsThePagesOfTheReadme) {
  host.install_sample();
  std::string readme;
  read_file(VALTA_SOURCE "/README.md", readme);
  for (const std::string verb : {"before", "after"}) {
    const std::string page = host.inspect(verb, "/usr/bin:/bin", "").page;
    std::string shown = "    $ valta-driver-inspect " + verb + "\n";
    for (const std::string& line : split(page, '\n')) {
      shown += (line.empty() ? "" : "    " + line) + "\n";
    }
    std::smatch block;
    std::regex_search(readme, block,
                      std::regex("    \\$ valta-driver-inspect " + verb + "\n(    .*\n|\n)*"));
    EXPECT_EQ(block.str(), std::regex_replace(shown, std::regex(kStackVersion), "VERSION") + "\n");
    host.run();
  }
}

TEST_F(Inspect, LeavesNothingBehindWhenKilled) {
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

TEST_F(Inspect, SaysWhatIsWrongWithItsArguments) {
  for (const char* const arguments :
       {"", "during", "before after", "before --status 1", "before --program /missing",
        "before --timeout 1s", "after --status 256", "after --console /missing"}) {
    EXPECT_EQ(host.inspect(arguments).status, 64) << arguments;
  }
  EXPECT_EQ(host.inspect("--version").status, 0);
}

// A run by its log, in lines between its first and its last one.
struct Judged {
  std::string name;
  std::string log;
  const char* outcome;
  std::optional<int> status = 0;
  std::vector<std::string> registrations = {};
  std::string closing = kSucceeded;
};

void PrintTo(const Judged& run, std::ostream* stream) { *stream << run.name; }

class Judges : public testing::TestWithParam<Judged> {};

TEST_P(Judges, ARunByWhatItLeft) {
  const Judged& run = GetParam();
  inspect::Report report;
  inspect::judge({run.status, "", "", run.log + run.closing, run.registrations, true}, report);
  EXPECT_STREQ(inspect::name_of(report.outcome), run.outcome) << report.reason;
}

const std::string kUnloaded =
    "Valta driver zephanor installed. Uninstall...\nSuccessful to uninstall driver zephanor.\n";
const std::string kFailedRemoval = "Uninstall: /x Failed.\nError: failed in removing.\n";

INSTANTIATE_TEST_SUITE_P(
    Each, Judges,
    testing::ValuesIn(std::vector<Judged>{
        {"Removed", kUnloaded + "Uninstall: /x Succeed.\n", "done"},
        {"NothingThere", "No driver installed. try uninstall utils.\n", "clean"},
        {"StatusUnknown", kUnloaded, "done", {}},
        {"Toolkit", "Uninstall: Toolkit not uninstalled. Skipping remove /x.\n", "shared"},
        {"OfAnotherRun", kUnloaded, "unknown", 5},
        {"BusyWithoutStatus",
         "Error: 'zephanor' is busy. The packaged driver\n",
         "busy",
         {},
         {},
         kFailed},
        {"FailedWithoutStatus", kFailedRemoval, "failed", {}, {}, kFailed},
        {"FailedCleanUp", kFailedRemoval, "failed"},
        {"GoneMeanwhile", "Valta driver zephanor installed. Uninstall...\n", "failed"},
        {"DirectoryStays", kUnloaded + "Warning: catched x when rmdir /opt\n", "failed"},
        {"NoDigest", "Warning: Uninstall: md5sum of /x is empty. Skipping.\n", "failed"},
        {"DkmsKeepsIt", kUnloaded, "failed", 0, {"/var/lib/dkms/valta/4"}},
        {"DkmsKeepsItInAContainer", "in side docker. skip dkms uninstall.\n", "clean", 0, {"/x"}},
        {"NoManifest", kUnloaded + "Warning: parse uninstall manifest error. please\n", "failed"},
        {"LineStuckToAnother", "check PATH.Error: Failed to depmod\n", "failed"},
        {"CutOff", kUnloaded, "unfinished", 0, {}, "Successfully uninstall driver.\n"},
        {"Killed", kUnloaded, "unfinished", 137, {}, ""},
        {"NoRmmod",
         "Error: Check utils failed. please refer guide in log.\n",
         "nothing-done",
         0,
         {},
         kClosing},
        {"NotRoot", "", "nothing-done", 255}}),
    [](const auto& row) { return row.param.name; });

TEST(Modules, UnloadingOneFreesTheOnesItUsed) {
  auto modules =
      inspect::parse_modules("b 1 0 - Live 0x0\na 1 2 b,c, Live 0x0\nc 1 1 - Live 0x0\n");
  EXPECT_EQ(inspect::unload_module(modules, "a"), "Module a is in use by: b c");
  EXPECT_EQ(inspect::unload_module(modules, "c"), "Module c is in use");
  EXPECT_EQ(inspect::unload_module(modules, "x-y"), "Module x-y is not currently loaded");
  EXPECT_EQ(inspect::unload_module(modules, "b"), std::nullopt);
  EXPECT_EQ(inspect::format_modules(modules), "a 1 1 c, Live 0x0\nc 1 1 - Live 0x0\n");
}

TEST(Holders, AreNotTheModulesThatARunUnloads) {
  inspect::Report report;
  inspect::look_at_holders("zephanor 1 1 zvrfs,[permanent], -\nzvrfs 1 0 -\n", {}, report);
  ASSERT_EQ(report.findings.size(), 1U);
  EXPECT_THAT(report.findings[0].text, HasSubstr("[permanent]"));
}

TEST(Mounts, AreReadWithTheirOddNames) {
  const auto mounts = inspect::parse_mountinfo(
      "3 1 8:1 / /a\\040b,c rw,nosuid shared:1 - ext4 /dev/x ro\nnonsense\n"
      "2 1 8:1 / / rw - overlay o rw\n");
  ASSERT_EQ(mounts.size(), 2U);
  EXPECT_EQ(mounts[0].point, "/");
  EXPECT_EQ(mounts[1].point, "/a b,c");
  EXPECT_EQ(mounts[1].flags, static_cast<unsigned long>(MS_NOSUID | MS_RDONLY));
}
