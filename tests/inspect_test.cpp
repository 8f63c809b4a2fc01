// Tests valta-driver-inspect on throwaway hosts: compares its prediction with the run that follows,
// and checks its report after a run.

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <set>
#include <unistd.h>

#include "inspect/findings/findings.h"
#include "inspect/report/run_check.h"
#include "inspection.h"
#include "log/log.h"
#include "situations.h"
#include "throwaway_host.h"
#include "uninstall/install_root.h"
#include "uninstall/manifest.h"

using namespace valta;
using testing::Contains;
using testing::HasSubstr;

Names paths_gone(const Listing& before, const Listing& after) {
  Names paths;
  for (const auto& [path, attributes] : before) {
    // The scripted systemctl keeps the state of units in this directory; a real systemd keeps it in
    // memory.
    if (!after.contains(path) && !path.starts_with("/run/systemd/units/")) {
      paths.insert(path);
    }
  }
  return paths;
}

class Predicts : public Inspect, public testing::WithParamInterface<Situation> {};

TEST_P(Predicts, TheRunAndChangesNothing) {
  meet(GetParam(), host);
  const auto before = host.listing();
  const Inspection predicted = host.inspect("before");
  EXPECT_EQ(only_in(host.listing(), before), Names());

  const Outcome run = host.run();
  EXPECT_EQ(predicted.report["status"], run.status);
  EXPECT_EQ(predicted.report["console"], run.console);
  EXPECT_EQ(predicted.report["output"], run.output);
  EXPECT_EQ(predicted.report["log"], run.log);
  EXPECT_EQ(all_of(predicted.report["removed"], "path"), paths_gone(before, host.listing()));
  EXPECT_EQ(predicted.report["outcome"], GetParam().outcome);
  if (!GetParam().finding.empty()) {
    EXPECT_THAT(all_of(predicted.report["findings"], "id"), Contains(GetParam().finding));
  } else if (GetParam().outcome == "done") {
    EXPECT_EQ(predicted.status, 0);
  }
  if (run.log.find("failed in removing.") != std::string::npos) {
    // Paths that a stopped run leaves are no findings: the next run may remove them.
    EXPECT_FALSE(all_of(predicted.report["findings"], "id").contains("manifest-left"));
  }

  // The outcome after the run is the predicted one.
  const Inspection checked = host.inspect("after --status " + std::to_string(run.status));
  EXPECT_EQ(checked.report["outcome"], GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(Each, Predicts, testing::ValuesIn(situations_of_hosts()),
                         testing::PrintToStringParamName());

TEST_F(Inspect, FindsNothingButTheChangedFileInTheSample) {
  host.install_sample();
  const auto before = host.listing();
  const Inspection predicted = host.inspect("before");
  EXPECT_EQ(predicted.status, 1);
  EXPECT_EQ(all_of(predicted.report["findings"], "id"),
            (Names{"file-changed", "directory-empty", "unseen"}));
  EXPECT_EQ(predicted.report["unloaded"],
            nlohmann::json({"zvrfs", "zvr_peer_mem_drv", "zephanor"}));
  host.run();
  EXPECT_EQ(all_of(predicted.report["removed"], "path"), paths_gone(before, host.listing()));
  const Inspection checked = host.inspect("after --status 0");
  EXPECT_EQ(checked.status, 1);
  EXPECT_EQ(all_of(checked.report["findings"], "id"), (Names{"file-changed", "directory-empty"}));
}

TEST_F(Inspect, PrintsThePagesOfTheSample) {
  host.install_sample();
  for (const std::string command : {"before", "after"}) {
    expect_of_sample(command, host.inspect(command, "/usr/bin:/bin", "").page);
    host.run();
  }
}

TEST_F(Inspect, PrintsAllThatIsOddAboutAHost) {
  host.load_module("zephanor");
  host.sh(
      "umask 0; mkdir -p /var/log/zephanorvalta; umask 22; file /usr/src/valta-1/dkms.conf; "
      "mkdir -p /etc/systemd/system/x.wants /etc/dkms/framework.conf.d /opt; "
      "file /lib/systemd/system/t@.service; file /lib/systemd/system/gone.service; "
      "ln -s /lib/systemd/system/t@.service /etc/systemd/system/x.wants/t@1.service; "
      "ln -s /missing /etc/systemd/system/x.wants/t@2.service; "
      "ln -s /lib/systemd/system/gone.service /etc/systemd/system/x.wants/gone.service; "
      "file /etc/dkms/framework.conf.d/x.conf dkms_tree=/elsewhere; "
      "file /elsewhere/valta/1/source/a; file /usr/src/valta-3/dkms.conf; "
      "file /lib/modules/6.1/updates/zvrfs.ko.xz; ln -s /usr/sbin/dkms /opt/dkms; "
      "file /etc/zephanor/x; ln -s /etc/os-release /usr/bin/zephanorvalta.sh; "
      "file /not-compared; file /no-digest; file \"/quote'd\"; file /changed x; file /link; "
      "file /v/lib64/libcudart.so; file /v/shared; file /v/d/x; file '/v/new\nline'; "
      "file /var/lib/dkms/valta/1/source/a");
  host.manifest({"VALTA /v", "FILE /usr/src/valta-1/dkms.conf x", "DKMS latest",
                 "DIR /usr/src/valta-1 ", "RFILE /v/shared " + kEmpty, "FILE relative " + kEmpty,
                 "FILE /quote'd " + kEmpty, "FILE /no-digest", "FILE /a blank " + kEmpty,
                 "FILE /not-compared x", "FILE /changed " + kEmpty, "SYMLINK /link ", "DIR /v/d ",
                 "SERVICE t@0  ", "SERVICE gone " + kEmpty});
  host.inspect("before", "/opt:/usr/bin:/bin");  // for its report
  expect_of_sample("odd.before", host.inspect("before", "/opt:/usr/bin:/bin", "--verbose").page);
  host.run();
  host.load_module("zvrfs");
  host.sh(
      ": >/run/systemd/units/invocation:t@0.service; mkdir -p /lib/systemd/system/; "
      "file /lib/systemd/system/t@.service");
  host.inspect("after");
  expect_of_sample("odd.after", host.inspect("after", "/usr/bin:/bin", "--verbose").page);
}

TEST_F(Inspect, KeepsItsContractWithScripts) {
  host.sh(
      "file /opt/\xff x; mkdir -p /opt/program; tool /opt/format nothing; "
      "file /lib/systemd/system/u.service; : >/run/systemd/units/invocation:u.service");
  std::ofstream(host.outside("/opt/format")) << "\n";  // executable, and in no format
  host.manifest({"FILE /opt/\xff " + kEmpty, "SERVICE u " + kEmpty});
  const Inspection predicted = host.inspect("before");
  EXPECT_EQ(predicted.status, 1);
  EXPECT_EQ(predicted.report["kept"][0]["path"], "/opt/\uFFFD");
  EXPECT_EQ(predicted.report["services"].dump(),
            R"([{"state":"disabled","unit":"u"},{"state":"stopped","unit":"u"}])");
  EXPECT_THAT(predicted.report["written"], Contains(kLogPath));
  const Inspection refused = host.inspect("before --program /opt/format");
  EXPECT_EQ(refused.status, 3);
  EXPECT_EQ(refused.report["outcome"], "unknown");
  EXPECT_THAT(refused.report["reason"].get<std::string>(), HasSubstr("/opt/format"));
  EXPECT_EQ(host.inspect("before --program /opt/program").status, 64);

  EXPECT_EQ(host.inspect("after").report["reason"], "there is no log of a run");
  EXPECT_EQ(host.inspect("after >/dev/full; echo $?", "/usr/bin:/bin", "").page, "74\n");
  host.run();
  host.sh("file /var/log/zephanorvalta/console; : >/var/log/zephanorvalta/console");
  EXPECT_EQ(host.inspect("after --console /var/log/zephanorvalta/console").status, 1);
}

TEST_F(Inspect, SaysWhatOnlyRootCanRead) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root becomes another user";
  }
  host.run();
  std::filesystem::permissions(host.outside(kLogPath), std::filesystem::perms::owner_read);
  const Inspection of_user = host.inspect("after", "/usr/bin:/bin", "--json", "-n");
  EXPECT_EQ(of_user.status, 3);
  EXPECT_THAT(of_user.report["reason"].get<std::string>(), HasSubstr("only root can read"));
}

TEST_F(Inspect, SaysWhatIsWrongWithItsArguments) {
  for (const char* const arguments :
       {"", "during", "before after", "before --status 1", "before --program /missing",
        "before --timeout 1s", "after --status 256", "after --console /missing"}) {
    EXPECT_EQ(host.inspect(arguments).status, 64) << arguments;
  }
  for (const char* const arguments : {"--version", "--help", "-h", "before -h", "after --help"}) {
    EXPECT_EQ(host.inspect(arguments).status, 0) << arguments;
  }
}

// A run by its log: the lines between its first and its last line.
struct CheckedRun {
  std::string name;
  std::string log;
  const char* outcome;
  std::optional<int> status = 0;
  std::vector<std::string> registrations = {};
  std::string closing = kSucceeded;
  std::string console = {};
};

void PrintTo(const CheckedRun& run, std::ostream* stream) { *stream << run.name; }

class Checks : public testing::TestWithParam<CheckedRun> {};

TEST_P(Checks, ARunByWhatItLeft) {
  const CheckedRun& run = GetParam();
  inspect::Report report;
  inspect::check_run({run.status, run.console, "", run.log + run.closing, run.registrations, true},
                     report);
  EXPECT_STREQ(inspect::name_of(report.outcome), run.outcome) << report.reason;
}

const std::string kUnloaded =
    "Valta driver zephanor installed. Uninstall...\nSuccessful to uninstall driver zephanor.\n";
const std::string kFailedRemoval = "Uninstall: /x Failed.\nError: failed in removing.\n";

INSTANTIATE_TEST_SUITE_P(
    Each, Checks,
    testing::ValuesIn(std::vector<CheckedRun>{
        {"Removed", kUnloaded + "Uninstall: /x Succeed.\n", "done"},
        {"NothingThere", "No driver installed. try uninstall utils.\n", "clean"},
        {"StatusUnknown", kUnloaded, "done", {}},
        {"Toolkit", "Uninstall: Toolkit not uninstalled. Skipping remove /x.\n", "shared"},
        {"OfAnotherRun", kUnloaded, "unknown", 5},
        {"ConsoleOfTheRun", kUnloaded, "done", 0, {}, kSucceeded, kSucceeded},
        {"ConsoleOfAnotherRun", kUnloaded, "unknown", {}, {}, kSucceeded, kFailed},
        {"NoConsole", kUnloaded, "unknown", 0, {}, kSucceeded, "root:x:0:0::/root:/bin/sh\n"},
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
        {"NoDigest", "Warning: Uninstall: md5sum of /x is empty. Skipping.\n", "kept"},
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
        {"NotRoot", "", "nothing-done", 255},
        {"RootNoMore", kUnloaded, "nothing-done", 7},
        {"NoLog", kUnloaded, "nothing-done", 1},
        {"CannotBeExecuted", kUnloaded, "nothing-done", 126},
        {"NotFound", kUnloaded, "nothing-done", 127}}),
    [](const auto& row) { return row.param.name; });

TEST(ExitStatus, FollowsTheOutcomeAndOfARunToComeTheFindings) {
  const auto status = [](inspect::Command command, inspect::Outcome outcome, bool finds = false) {
    inspect::Report report;
    report.command = command;
    report.outcome = outcome;
    report.add("unseen", "");
    if (finds) {
      report.add("dkms-tree", "");
    }
    return inspect::exit_status(report);
  };
  using inspect::Command;
  using inspect::Outcome;
  EXPECT_EQ(status(Command::before, Outcome::done), 0);
  EXPECT_EQ(status(Command::before, Outcome::clean, true), 1);
  EXPECT_EQ(status(Command::after, Outcome::done, true), 0);
  EXPECT_EQ(status(Command::after, Outcome::shared), 1);
  EXPECT_EQ(status(Command::after, Outcome::busy), 2);
  EXPECT_EQ(status(Command::before, Outcome::unknown, true), 3);
}

TEST(Holders, AreNotTheModulesThatARunUnloads) {
  inspect::Report report;
  inspect::look_at_module_users("zephanor 1 1 zvrfs,[permanent], -\nzvrfs 1 0 -\n", {}, report);
  ASSERT_EQ(report.findings.size(), 1U);
  EXPECT_THAT(report.findings[0].text, HasSubstr("[permanent]"));
}
