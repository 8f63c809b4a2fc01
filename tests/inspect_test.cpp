// The program that looks before and after a run: on throwaway hosts, where what it foretells is
// compared with the run that follows, and its judgement of what a run left.

#include <gmock/gmock.h>
#include <set>

#include "inspect/findings/findings.h"
#include "inspect/report/run_check.h"
#include "inspection.h"
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
  if (run.log.find("failed in removing.") != std::string::npos) {
    // What a run leaves that stops on its way is no finding: the next run may remove it.
    EXPECT_FALSE(all_of(foretold.report["findings"], "id").contains("manifest-left"));
  }

  // What a run came to is judged as it was foretold to be judged.
  const Inspection judged = host.inspect("after --status " + std::to_string(run.status));
  EXPECT_EQ(judged.report["outcome"], GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(Each, Foretells, testing::ValuesIn(situations_of_hosts()),
                         testing::PrintToStringParamName());

TEST_F(Inspect, FindsNothingButTheChangedFileInTheSample) {
  host.install_sample();
  const auto before = host.listing();
  const Inspection foretold = host.inspect("before");
  EXPECT_EQ(foretold.status, 1);
  EXPECT_EQ(all_of(foretold.report["findings"], "id"),
            (Names{"file-changed", "directory-empty", "unseen"}));
  EXPECT_EQ(foretold.report["unloaded"], nlohmann::json({"zvrfs", "zvr_peer_mem_drv", "zephanor"}));
  host.run();
  EXPECT_EQ(all_of(foretold.report["removed"], "path"), paths_gone(before, host.listing()));
  const Inspection judged = host.inspect("after --status 0");
  EXPECT_EQ(judged.status, 1);
  EXPECT_EQ(all_of(judged.report["findings"], "id"), (Names{"file-changed", "directory-empty"}));
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
  host.sh(": >/run/active/t@0; mkdir -p /lib/systemd/system/; file /lib/systemd/system/t@.service");
  host.inspect("after");
  expect_of_sample("odd.after", host.inspect("after", "/usr/bin:/bin", "--verbose").page);
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
  inspect::check_run({run.status, "", "", run.log + run.closing, run.registrations, true}, report);
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
        {"NotRoot", "", "nothing-done", 255}}),
    [](const auto& row) { return row.param.name; });

TEST(Holders, AreNotTheModulesThatARunUnloads) {
  inspect::Report report;
  inspect::look_at_module_users("zephanor 1 1 zvrfs,[permanent], -\nzvrfs 1 0 -\n", {}, report);
  ASSERT_EQ(report.findings.size(), 1U);
  EXPECT_THAT(report.findings[0].text, HasSubstr("[permanent]"));
}
