// Complete runs of the real program in every test scenario: their commands, log, output, and the
// files that are left.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "situations.h"
#include "throwaway_host.h"
#include "uninstall/manifest.h"

using namespace valta;
using testing::HasSubstr;

const std::string kSummary =
    "Found changed file during uninstall valta, changed file will not be remove.\n"
    "Check uninstall log please.\n";

class WholeRun : public testing::Test {
 protected:
  ThrowawayHost host;
};

TEST_F(WholeRun, TakesACompleteInstallationDownAndKeepsTheChangedFile) {
  host.install_sample();
  const Outcome run = host.run();
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.console, kSummary + kSucceeded);
  expect_of_sample("trace", run.trace);
  expect_of_sample("log", run.log);
  expect_of_sample("left", host.files());
}

TEST_F(WholeRun, SecondPassForASecondDriverMeetsWhatTheFirstOneLeft) {
  host.load_module("kq_driver");
  host.load_module("zephanor");
  host.sh(
      "file /v/bin/valta-driver-uninstaller; file /v/shared; "
      "file /lib/systemd/system/u.service; file /v/changed changed");
  host.manifest({"VALTA /v", "RFILE /v/shared " + kEmpty,
                 "FILE /v/bin/valta-driver-uninstaller " + kEmpty, "FILE /v/changed " + kEmpty,
                 "SERVICE u " + kEmpty});
  const Outcome run = host.run();
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.console, kSummary + kSummary + kSucceeded);
  EXPECT_EQ(run.trace, rmmod("kq_driver") + md5sum("/v/bin/valta-driver-uninstaller") +
                           md5sum("/v/changed") + disable_and_stop("u") +
                           md5sum("/lib/systemd/system/u.service") + forget_and_ask("u") +
                           clean_up() + rmmod("zephanor") + disable_and_stop("u") +
                           forget_and_ask("u") + clean_up());
  // The marker that the first pass deleted still keeps the shared file in the second.
  EXPECT_EQ(host.files(),
            "/v/bin/\n/v/changed\n/v/shared\n" + kLog + "\n" + kUninstallManifestPath + "\n");
  EXPECT_THAT(run.log.substr(run.log.find("Valta driver zephanor installed")),
              HasSubstr("Uninstall: Driver not uninstalled. Skipping remove /v/shared.\n"
                        "Uninstall: /v/bin/valta-driver-uninstaller not exist. Skipping.\n"
                        "Warning: Uninstall: md5sum of /v/changed has changed."));
}

TEST_F(WholeRun, WithoutAManifestRemovesWhatDkmsKnows) {
  host.load_module("kq_driver");
  host.sh("file /var/lib/dkms/valta/4/source/dkms.conf");
  const Outcome run = host.run();
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.trace, rmmod("kq_driver") + "dkms remove valta/4 --all 2>&1 2>&1\n" + clean_up());
  EXPECT_THAT(run.log, HasSubstr("Warning: Uninstall manifests not found at location: '" +
                                 std::string(kUninstallManifestPath) + R"('.
Warning: parse uninstall manifest error. please uninstall kq_driver manually
Debug: Found dkms, try to remove dkms ValtA configuration.
parsing dkms config /etc/dkms/framework.conf
Warning: dkms conf /etc/dkms/framework.conf not exist. assume default value.
)"));
}

TEST_F(WholeRun, NeedsNoConsoleAndNoSignalsFromItsCaller) {
  host.install_sample();
  const Outcome run = host.run({.options = "-e --ignore-signal=CHLD", .streams = "2>&1 | true"});
  EXPECT_EQ(run.log, expected_of_sample("log"));
}

TEST_F(WholeRun, KeepsItsLogApartFromAClosedStreamAndFromItsTools) {
  host.install_sample();
  host.sh(
      "tool /sbin/depmod '{ echo leak >&2; echo leak >&3; echo leak >&4; } 2>/dev/null; exit 0'");
  EXPECT_EQ(host.run({.streams = "2>&-"}).log, expected_of_sample("log"));
}

TEST_F(WholeRun, ShowsBothStreamsInTheOrderOfTheirLines) {
  host.load_module("zephanor");
  host.manifest({"unknown"});
  const Outcome run = host.run({.streams = R"(>"$CONSOLE" 2>&1)"});
  EXPECT_EQ(run.console, "Uninstall: type:unknown's handler is not found.\n" + kFailed);
}

TEST_F(WholeRun, NormalUserIsRefused) {
  const Outcome run = host.run({.options = "-n"});
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.console, "Permission denied.\n");
  EXPECT_EQ(host.files(), "");
}

TEST_F(WholeRun, GivesItsToolsAHomeTheSystemPathAMaskAndTheUsualSignals) {
  host.sh(
      "tool /sbin/depmod 'pwd >/seen; echo $PATH >>/seen; umask >>/seen; kill -PIPE $$; "
      "echo SIGPIPE is ignored >>/seen'");
  umask(0);
  for (const std::string home : {"/usr/src", ""}) {
    host.run({.variable = home.empty() ? "LANG=C" : "HOME=" + home});
    EXPECT_EQ(host.read("/seen"),
              (home.empty() ? "/" : home) + "\n/usr/bin:/bin:/sbin:/usr/sbin\n0022\n");
    EXPECT_THAT(host.listing().at(kLog), HasSubstr(" mode 100644 "));
  }
}

class RunWhere : public WholeRun, public testing::WithParamInterface<Situation> {};

TEST_P(RunWhere, EndsAsItShould) {
  const Situation& situation = GetParam();
  meet(situation, host);
  std::string left = host.files();
  left.erase(left.find("/last\n"), situation.goes_on ? 6 : 0);
  const Outcome run = host.run({.fault = situation.fault});
  EXPECT_EQ(run.status, situation.status);
  EXPECT_EQ(run.console, situation.console);
  EXPECT_EQ(run.output, situation.output);
  EXPECT_THAT(run.log, HasSubstr(situation.log));
  EXPECT_EQ(run.trace, (situation.unloads ? rmmod("zephanor") : "") + situation.runs +
                           (situation.goes_on ? md5sum("/last") + clean_up() : ""));
  EXPECT_EQ(host.files(), left);
}

INSTANTIATE_TEST_SUITE_P(Each, RunWhere, testing::ValuesIn(situations()),
                         testing::PrintToStringParamName());
