// Whole runs of the real program: every way through the system, with what it ran, logged, showed
// and left behind.

#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <sys/stat.h>

#include "host.h"

using namespace valta;
using testing::HasSubstr;

const std::string kClosing = "Driver uninstall log is in " + kLog + "\n";
const std::string kSucceeded = "Successfully uninstall driver.\n" + kClosing;
const std::string kSummary =
    "Found changed file during uninstall valta, changed file will not be remove.\n"
    "Check uninstall log please.\n";
const std::string kBusyEnd =
    " The packaged driver you're attempting to install should kill these associated processes "
    "first.\n";
std::string expected_of_sample(const std::string& what) {
  std::ifstream file(VALTA_HOST_SCRIPTS "/sample." + what);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The same at the end of every run that gets there.
const std::string kCleanUp =
    expected_of_sample("trace").substr(expected_of_sample("trace").find("rm -rf /usr/bin/"));

std::string failed(const std::string& driver) {
  return "Uninstall valta driver " + driver + " failed.\nDriver uninstall failed.\n" + kClosing;
}

std::string rmmod(const std::string& module, const std::string& redirection = " 2>&1") {
  return "rmmod " + module + redirection + "\n  rmmod " + module + "\n";
}

std::string md5sum(const std::string& path) { return "md5sum '" + path + "' 2>&1 2>&1\n"; }

std::string stop(const std::string& unit) {
  return "systemctl disable " + unit + " 2>&1; systemctl stop " + unit +
         " 2>&1 2>&1\n  systemctl disable " + unit + "\n  systemctl stop " + unit + "\n";
}

std::string forget(const std::string& unit) {
  return "systemctl reset-failed;systemctl daemon-reload 2>&1\n  systemctl reset-failed\n"
         "  systemctl daemon-reload\nsystemctl status " +
         unit + " 2>&1 2>&1\n  systemctl status " + unit + "\n";
}

class WholeRun : public testing::Test {
 protected:
  Host host;
};

TEST_F(WholeRun, TakesACompleteInstallationDownAndKeepsTheChangedFile) {
  host.install_sample();
  const Outcome run = host.run();
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.console, kSummary + kSucceeded);
  EXPECT_EQ(run.trace, expected_of_sample("trace"));
  EXPECT_EQ(run.log, expected_of_sample("log"));
  EXPECT_EQ(host.files(), expected_of_sample("left"));
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
                           md5sum("/v/changed") + stop("u") +
                           md5sum("/lib/systemd/system/u.service") + forget("u") + kCleanUp +
                           rmmod("zephanor") + stop("u") + forget("u") + kCleanUp);
  // The marker that the first pass deleted still keeps the shared file in the second.
  EXPECT_EQ(host.files(), "/v/bin/\n/v/changed\n/v/shared\n" + kLog + "\n" + kManifest + "\n");
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
  EXPECT_EQ(run.trace, rmmod("kq_driver") +
                           "dkms remove valta/4 --all 2>&1 2>&1\n  dkms remove valta/4 --all\n" +
                           kCleanUp);
  EXPECT_THAT(run.log,
              HasSubstr("Warning: Uninstall manifests not found at location: '" + kManifest + R"('.
Warning: parse uninstall manifest error. please uninstall kq_driver manually
Debug: Found dkms, try to remove dkms ValtA configuration.
parsing dkms config /etc/dkms/framework.conf
Warning: dkms conf /etc/dkms/framework.conf not exist. assume default value.
)"));
}

TEST_F(WholeRun, NeedsNoConsoleAndNoSignalsFromItsCaller) {
  host.install_sample();
  EXPECT_EQ(host.run("LANG=C", "-e --ignore-signal=CHLD", "true").log, expected_of_sample("log"));
}

TEST_F(WholeRun, NormalUserIsRefused) {
  const Outcome run = host.run("LANG=C", "-n");
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.console, "Permission denied.\n");
  EXPECT_EQ(host.files(), "");
}

TEST_F(WholeRun, StartsFromHomeOrTheRootDirectoryWithTheSystemPath) {
  host.sh("tool /sbin/depmod 'pwd >/seen; echo $PATH >>/seen; umask >>/seen'");
  umask(0);
  for (const std::string home : {"/usr/src", ""}) {
    host.run(home.empty() ? "LANG=C" : "HOME=" + home);
    EXPECT_EQ(host.read("/seen"),
              (home.empty() ? "/" : home) + "\n/usr/bin:/bin:/sbin:/usr/sbin\n0022\n");
  }
}

/// A host with one driver loaded, one file to remove at the end of the manifest, and one thing
/// that is not as it should be.
struct Way {
  std::string name;
  std::string entry;    ///< what stands first in the manifest
  std::string prepare;  ///< shell commands
  int status;
  std::string console;
  std::string log;  ///< part of it
  std::string trace;
  bool goes_on = false;  ///< up to the file at the end
  std::string output = {};
};

void PrintTo(const Way& way, std::ostream* stream) { *stream << way.name; }

class DifferentWay : public WholeRun, public testing::WithParamInterface<Way> {};

TEST_P(DifferentWay, EndsAsItShould) {
  const Way& way = GetParam();
  host.load_module("zephanor");
  host.sh("file /last; file " + kLog);
  host.manifest({way.entry, "FILE /last " + kEmpty});
  host.sh(way.prepare);
  std::string left = host.files();
  left.erase(left.find("/last\n"), way.goes_on ? 6 : 0);
  const Outcome run = host.run();
  EXPECT_EQ(run.status, way.status);
  EXPECT_EQ(run.console, way.console);
  EXPECT_EQ(run.output, way.output);
  EXPECT_THAT(run.log, HasSubstr(way.log));
  EXPECT_EQ(run.trace, way.trace);
  EXPECT_EQ(host.files(), left);
}

const std::string kOfed =
    "file /usr/src/ofa_kernel/default/include/rdma/peer_mem.h; "
    "file /usr/src/ofa_kernel/default/Module.symvers; ";
const std::string kUnloaded = rmmod("zephanor");
const std::string kRest = md5sum("/last") + kCleanUp;
const std::string kFailed = failed("zephanor");
const std::string kStopped = "Error: failed in removing.\nUninstall valta driver zephanor failed.";

INSTANTIATE_TEST_SUITE_P(
    Of, DifferentWay,
    testing::Values(
        Way{"BusyDriver", "", "echo 'kq_driver 1 3 -' >>/proc/modules", 43, failed("kq_driver"),
            "Error: 'zephanor' is busy." + kBusyEnd, ""},
        Way{"BusyCompanion", "", "echo 'zvrfs 1 1 -' >>/proc/modules", 43, kFailed,
            "Error: Remove 'zvrfs' failed and it's maybe busy." + kBusyEnd,
            rmmod("zvrfs", " 2>/dev/null")},
        Way{"BusyPeerMemory", "", kOfed + "echo 'zvr_peer_mem_drv 1 1 -' >>/proc/modules", 43,
            kFailed, "Error: Remove 'zvr_peer_mem_drv' failed and it's maybe busy." + kBusyEnd,
            rmmod("zvr_peer_mem_drv", " 2>/dev/null")},
        Way{"FailingRmmod", "", "tool /sbin/rmmod 'echo stuck >&2; exit 1'", 5, kFailed,
            "Error: Failed to uninstall driver zephanor.\nDebug: stuck\n\nUninstall valta",
            "rmmod zephanor 2>&1\n"},
        Way{"DriverGoneMeanwhile", "", kOfed + "tool /sbin/rmmod ': >/proc/modules'", 0, kSucceeded,
            "zephanor not installed.\nSuccessfully", "rmmod zvr_peer_mem_drv 2>/dev/null\n"},
        Way{"NoDriver", "VALTA /v",
            ": >/proc/modules; tool /sbin/depmod 'echo \"  depmod\" >>/trace; echo broken; exit 1'",
            0, kSucceeded,
            "Error: Failed to depmod, modprobe/modinfo might cant find :\nbroken\n\nSuccessfully",
            kRest, true},
        Way{"StuckConfiguration", "VALTA /v",
            "tool /usr/bin/rm '[ $2 != /etc/zephanor ] || { printf held; exit 1; }'", 0, kSucceeded,
            "Error: Clean up the old configuration file /etc/zephanor failed, heldSuccessfully",
            kUnloaded + kRest, true},
        Way{"NoRmmod", "VALTA /v", "rm /sbin/rmmod", 0, kClosing,
            "Error: Unable to find the system utility 'rmmod'; please make sure you have the "
            "package 'module-init-tools' or 'kmod' installed.  If you do have 'module-init-tools' "
            "or 'kmod' installed, then please check that 'rmmod' is in your PATH.\n"
            "Error: Check utils failed. please refer guide in log.\n",
            ""},
        Way{"NoLog", "", "rm " + kLog + "; ln -s /missing/log " + kLog, 1,
            "Failed to init zvlogger.\n", "", ""},
        Way{"Container", "SERVICE u " + kEmpty + "\nDKMS latest",
            "echo '0::/x/docker-1.scope' >/proc/self/cgroup", 0, kSucceeded,
            "Debug: seeking docker found line is #0::/x/docker-1.scope#\n"
            "Skip systemctl in side docker.\n"
            "Debug: seeking docker found line is #0::/x/docker-1.scope#\n"
            "in side docker. skip dkms uninstall.\n",
            kUnloaded + kRest, true},
        Way{"ChangedUnit", "SERVICE a@b " + kEmpty, "file /lib/systemd/system/a@.service x", 0,
            "/lib/systemd/system/a@.service's md5 mismatch, skip remove. please check it's "
            "content.\n" +
                kSucceeded,
            "content.\nUninstall: /last",
            kUnloaded + stop("a@b") + md5sum("/lib/systemd/system/a@.service") + kRest, true},
        Way{"MaskedUnit", "SERVICE u " + kEmpty, "file /etc/systemd/system/u.service", 145, kFailed,
            "Debug: checking service_file /lib/systemd/system/u.service\n"
            "Uninstall: service:u failed.\n"
            "Warning:     service u may not being removed properly.\n" +
                kStopped,
            kUnloaded + stop("u") + forget("u")},
        Way{"UnknownType", "FILE /dev/null x\nfile /a b", "", 5, kFailed, kStopped,
            kUnloaded + md5sum("/dev/null"), false,
            "Uninstall: type:file's handler is not found.\n"},
        Way{"LinkLoop", "DIR /loop ", "ln -s /loop /loop", 5, kFailed,
            "Error: filesystem error: status: Too many levels of symbolic links [/loop]\n" +
                kStopped,
            kUnloaded},
        Way{"Fifo", "DIR /fifo ", "mkfifo /fifo", 5, kFailed, "[/fifo]\n" + kStopped, kUnloaded},
        Way{"FileNotDeleted", "FILE /full digest",
            "file /full/file; tool /usr/bin/md5sum 'echo digest of $1'", 141, kFailed,
            "Uninstall: /full Failed.\n" + kStopped, kUnloaded + md5sum("/full")},
        Way{"DkmsRefuses", "DKMS latest",
            "file /var/lib/dkms/valta/1/source/a; tool /usr/sbin/dkms 'echo held; exit 4'; "
            "mkdir -p /etc/dkms/framework.conf",
            140, kFailed,
            "is empty. assume default value.\nsource_tree /usr/src\ndkms_tree /var/lib/dkms\n"
            "install_tree /lib/modules\nchecking /var/lib/dkms/valta/1\n"
            "Debug: CMD: dkms remove valta/1 --all 2>&1\n" +
                kStopped,
            kUnloaded + "dkms remove valta/1 --all 2>&1 2>&1\n", false,
            "Error happened in dkms remove valta/1 --all 2>&1. please check manually. remove "
            "returns 4.\nheld\n\n"},
        Way{"DkmsSourcesStay", "DKMS latest",
            "file /var/lib/dkms/valta/1/source/a; file /usr/src/valta-1/a; "
            "tool /usr/sbin/dkms 'exit 3'; tool /usr/bin/rm 'exit 1'",
            140, kFailed,
            "Debug: CMD: /usr/src/valta-1\n"
            "Warning: remove dkms src /usr/src/1 may failed. please remove it manually.\n" +
                kStopped,
            kUnloaded +
                "dkms remove valta/1 --all 2>&1 2>&1\nrm -rf /usr/src/valta-1 2>&1 2>&1\n"}),
    [](const testing::TestParamInfo<Way>& way) { return way.param.name; });
