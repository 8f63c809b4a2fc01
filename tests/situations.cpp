#include "situations.h"

#include <ostream>
#include <sys/utsname.h>

#include "uninstall/install_root.h"
#include "uninstall/manifest.h"

namespace valta {
namespace {

const std::string kBusyEnd =
    " The packaged driver you're attempting to install should kill these associated processes "
    "first.\n";
const std::string kOfed =
    "file /usr/src/ofa_kernel/default/include/rdma/peer_mem.h; "
    "file /usr/src/ofa_kernel/default/Module.symvers; ";
const std::string kStopped = "Error: failed in removing.\nUninstall valta driver zephanor failed.";
const std::string kUnit = "/lib/systemd/system/u.service";

std::string modules_of_kernel() {
  utsname kernel{};
  uname(&kernel);
  return std::string("/lib/modules/") + kernel.release;
}

std::string dkms_remove(const std::string& version) {
  return "dkms remove valta/" + version + " --all 2>&1 2>&1\n";
}

}  // namespace

void PrintTo(const Situation& situation, std::ostream* stream) { *stream << situation.name; }

void meet(const Situation& situation, ThrowawayHost& host) {
  host.load_module("zephanor");
  host.sh("file /last; file " + kLog);
  std::vector<std::string> lines = situation.manifest;
  lines.push_back("FILE /last " + kEmpty);
  host.manifest(lines);
  host.sh(situation.prepare);
}

std::string rmmod(const std::string& module) { return "rmmod " + module + " 2>&1\n"; }

std::string md5sum(const std::string& path) { return "md5sum '" + path + "' 2>&1 2>&1\n"; }

std::string disable_and_stop(const std::string& unit) {
  return "systemctl disable " + unit + " 2>&1; systemctl stop " + unit + " 2>&1 2>&1\n";
}

std::string forget_and_ask(const std::string& unit) {
  return "systemctl reset-failed;systemctl daemon-reload 2>&1\nsystemctl status " + unit +
         " 2>&1 2>&1\n";
}

std::string clean_up() {
  const std::string trace = expected_of_sample("trace");
  return trace.substr(trace.find("rm -rf /usr/bin/"));
}

std::vector<Situation> situations() {
  return {
      {.name = "DriverIsBusy",
       .prepare = "echo 'kq_driver 1 3 -' >>/proc/modules",
       .status = 43,
       .console = "Uninstall valta driver kq_driver failed.\nDriver uninstall failed.\n" + kClosing,
       .log = "Error: 'zephanor' is busy." + kBusyEnd,
       .outcome = "busy",
       .finding = "module-users",
       .unloads = false,
       .pattern = "does not identify",
       .mend = ": >/plain/proc/modules"},
      {.name = "CompanionIsBusy",
       .prepare = "echo 'zvrfs 1 1 -' >>/proc/modules",
       .status = 43,
       .log = "Error: Remove 'zvrfs' failed and it's maybe busy." + kBusyEnd,
       .outcome = "busy",
       .finding = "module-users",
       .runs = "rmmod zvrfs 2>/dev/null\n",
       .unloads = false,
       .pattern = "does not identify",
       .mend = ": >/plain/proc/modules"},
      {.name = "PeerMemoryIsBusy",
       .prepare = kOfed + "echo 'zvr_peer_mem_drv 1 1 -' >>/proc/modules",
       .status = 43,
       .log = "Error: Remove 'zvr_peer_mem_drv' failed and it's maybe busy." + kBusyEnd,
       .outcome = "busy",
       .finding = "module-users",
       .runs = "rmmod zvr_peer_mem_drv 2>/dev/null\n",
       .unloads = false,
       .pattern = "does not identify",
       .mend = ": >/plain/proc/modules"},
      {.name = "RmmodFails",
       .prepare = "tool /sbin/rmmod ': >/proc/modules; echo stuck >&2; exit 1'",
       .status = 5,
       .log = "Error: Failed to uninstall driver zephanor.\nDebug: stuck\n\nUninstall valta",
       .runs = rmmod("zephanor"),
       .unloads = false},
      {.name = "DriverIsGoneMeanwhile",
       .prepare = kOfed + "tool /sbin/rmmod ': >/proc/modules'",
       .log = "zephanor not installed.\nSuccessfully",
       .runs = "rmmod zvr_peer_mem_drv 2>/dev/null\n",
       .unloads = false},
      {.name = "NoDriverAndDepmodFails",
       .prepare = ": >/proc/modules; mkdir -p " + modules_of_kernel() +
                  "; tool /sbin/depmod 'echo broken; exit 1'",
       .log = "Error: Failed to depmod, modprobe/modinfo might cant find :\nbroken\n\nSuccessfully",
       .outcome = "failed",
       .unloads = false,
       .goes_on = true,
       .pattern = "depmod fails: broken",
       .mend = "tool /sbin/depmod ': >" + modules_of_kernel() + "/modules.dep'"},
      {.name = "DepmodHasNothingToRefresh",
       .prepare = ": >/proc/modules; tool /sbin/depmod 'echo no directory; exit 1'",
       .log = "might cant find :\nno directory\n",
       .finding = "modules-missing",
       .unloads = false,
       .goes_on = true},
      {.name = "ConfigurationIsStuck",
       .prepare = "tool /usr/bin/rm '[ $2 != /etc/zephanor ] || { printf held; exit 1; }'; "
                  "file /etc/zephanor/settings",
       .log = "Error: Clean up the old configuration file /etc/zephanor failed, heldSuccessfully",
       .outcome = "failed",
       .finding = "removal-fails",
       .goes_on = true,
       .pattern = "/etc/zephanor is a directory that cannot be deleted",
       .mend = "cp /bin/real/rm /usr/bin/rm"},
      {.name = "RmmodIsMissing",
       .prepare = "rm /sbin/rmmod",
       .console = kClosing,
       .log = "Error: Unable to find the system utility 'rmmod'; please make sure you have the "
              "package 'module-init-tools' or 'kmod' installed.  If you do have "
              "'module-init-tools' or 'kmod' installed, then please check that 'rmmod' is in your "
              "PATH.\nError: Check utils failed. please refer guide in log.\n",
       .outcome = "nothing-done",
       .finding = "tool-missing",
       .unloads = false,
       .pattern = "rmmod is not in PATH",
       .mend = "tool /sbin/rmmod ': >/plain/proc/modules'"},
      {.name = "LogCannotBeOpened",
       .prepare = "rm " + kLog + "; ln -s /missing/log " + kLog,
       .status = 1,
       .console = "Failed to init zvlogger.\n",
       .outcome = "nothing-done",
       .finding = "log-odd",
       .unloads = false},
      {.name = "NotRootAnymore",
       .fault = "not-root-anymore",
       .status = 7,
       .console = "Permission denied.\n",
       .log = "Permission denied.\n",
       .unloads = false},
      {.name = "OutOfMemory",
       .fault = "memory",
       .status = 5,
       .console = "Driver uninstall failed.\n" + kClosing,
       .log = "Error: std::bad_alloc\nDriver uninstall failed.\n",
       .unloads = false},
      {.name = "ShellCannotBeStarted",
       .manifest = {"FILE /dev/null x", "SERVICE u x"},
       .prepare = ": >/proc/modules",
       .fault = "popen",
       .log = "Warning: MD5 for /dev/null failed: 0 ctx: \nWarning: Uninstall: md5sum of "
              "/dev/null is empty. Skipping.\nDebug: checking service_file " +
              kUnit + "\nUninstall: service:u failed.\n",
       .unloads = false},
      {.name = "Container",
       .manifest = {"SERVICE u " + kEmpty, "DKMS latest"},
       .prepare =
           "echo '0::/x/docker-1.scope' >/proc/self/cgroup; file /etc/systemd/system/u.service; "
           "file /var/lib/dkms/valta/1/source/a; rm /usr/sbin/dkms",
       .log = "Debug: seeking docker found line is #0::/x/docker-1.scope#\n"
              "Skip systemctl in side docker.\n"
              "Debug: seeking docker found line is #0::/x/docker-1.scope#\n"
              "in side docker. skip dkms uninstall.\n",
       .goes_on = true},
      {.name = "OsReleaseCannotBeRead",
       .fault = "read:/etc/os-release",
       .log = "Debug: Failed to read /etc/os-release: Input/output error\n",
       .goes_on = true},
      {.name = "ManifestCannotBeReadToItsEnd",
       .manifest = {"SYMLINK /link "},
       .prepare = "ln -s /missing /link",
       .fault = std::string("read:") + kUninstallManifestPath,
       .log = std::string("Debug: Failed to read ") + kUninstallManifestPath +
              ": Input/output error\nWarning: parse uninstall manifest error. please uninstall "
              "zephanor manually\nDebug: Found dkms",
       .runs = clean_up()},
      {.name = "NeitherDriverNorManifestNorDkms",
       .prepare = std::string(": >/proc/modules; rm /usr/sbin/dkms ") + kUninstallManifestPath +
                  "; file " + default_install_root() + "/file",
       .log = std::string("Continue...\nNo driver installed. try uninstall utils.\n"
                          "Warning: Uninstall manifests not found at location: '") +
              kUninstallManifestPath +
              "'.\nWarning: parse uninstall manifest error. please uninstall  manually\n"
              "Successfully uninstall driver.\n",
       .outcome = "failed",
       .finding = "manifest-missing",
       .runs = clean_up(),
       .unloads = false},
      {.name = "TypeIsUnknown",
       .manifest = {"FILE /dev/null x", "file /a b"},
       .status = 5,
       .output = "Uninstall: type:file's handler is not found.\n",
       .log = kStopped,
       .finding = "manifest-type",
       .runs = md5sum("/dev/null"),
       .ends = "kept"},
      {.name = "DirectoryIsALinkLoop",
       .manifest = {"DIR /loop "},
       .prepare = "ln -s /loop /loop",
       .status = 5,
       .log = "Error: filesystem error: status: Too many levels of symbolic links [/loop]\n" +
              kStopped},
      {.name = "DirectoryIsAFifo",
       .manifest = {"DIR /fifo "},
       .prepare = "mkfifo /fifo",
       .status = 5,
       .log = "[/fifo]\n" + kStopped},
      {.name = "FileCannotBeDeleted",
       .manifest = {"FILE /dev/null x", "FILE /full digest"},
       .prepare = kAnyDigest + "file /full/file",
       .status = 141,
       .log = "Skipping. expected,actual:(x digest).\nUninstall: /full Failed.\n" + kStopped,
       .runs = md5sum("/dev/null") + md5sum("/full"),
       .pattern = "/full is a directory",
       .mend = "rm -r /full",
       .ends = "kept"},
      {.name = "LinkCannotBeDeleted",
       .manifest = {"SYMLINK /link "},
       .prepare = "ln -s /missing /link",
       .fault = "unlink",
       .status = 143,
       .log = "Uninstall: /link Failed.\n" + kStopped},
      {.name = "SharedLinkCannotBeDeleted",
       .manifest = {"RLINK /link "},
       .prepare = "ln -s /missing /link",
       .fault = "unlink",
       .status = 144,
       .log = "Uninstall: /link Failed.\n" + kStopped},
      {.name = "PrefixCannotBeLookedInto",
       .manifest = {{"VALTA /v\0 x", 11}, "SYMLINK /v/lib "},
       .prepare = "mkdir /v; ln -s /missing /v/lib",
       .log = "Uninstall: Toolkit not uninstalled. Skipping remove /v/lib.\n",
       .outcome = "shared",
       .finding = "shared-kept",
       .goes_on = true,
       .ends = "shared"},
      {.name = "UnitIsChanged",
       .manifest = {"SERVICE a@b " + kEmpty},
       .prepare = "file /lib/systemd/system/a@.service x",
       .console = "/lib/systemd/system/a@.service's md5 mismatch, skip remove. please check it's "
                  "content.\n" +
                  kSucceeded,
       .log = "content.\nUninstall: /last",
       .outcome = "kept",
       .finding = "unit-changed",
       .runs = disable_and_stop("a@b") + md5sum("/lib/systemd/system/a@.service"),
       .goes_on = true},
      {.name = "UnitIsMasked",
       .manifest = {"SERVICE u " + kEmpty},
       .prepare = "file /etc/systemd/system/u.service",
       .status = 145,
       .log = "Debug: checking service_file " + kUnit +
              "\nUninstall: service:u failed.\n"
              "Warning:     service u may not being removed properly.\n" +
              kStopped,
       .finding = "unit-copied",
       .runs = disable_and_stop("u") + forget_and_ask("u")},
      {.name = "SystemdIsNotRunning",
       .manifest = {"SERVICE u " + kEmpty},
       .prepare = "rm -r /run/systemd/system; tool /usr/bin/systemctl 'echo no $1 >&2; exit 1'",
       .status = 145,
       .console = "no reset-failed\n" + kFailed,
       .log = "Uninstall: service:u failed.\n",
       .finding = "systemd-missing",
       .runs = disable_and_stop("u") + forget_and_ask("u")},
      {.name = "UnitCannotBeDeleted",
       .manifest = {"SERVICE u digest"},
       .prepare = kAnyDigest + "file " + kUnit + "/file",
       .status = 145,
       .log = "Uninstall: " + kUnit + " Succeed.\nUninstall: service:u failed.\n",
       .runs = disable_and_stop("u") + md5sum(kUnit) + forget_and_ask("u"),
       .pattern = "u.service is a directory",
       .mend = "rm -r " + kUnit,
       .ends = "kept"},
      {.name = "DkmsIsMissingAndALinkIsNone",
       .manifest = {"DKMS latest", "SYMLINK /etc/os-release "},
       .prepare = "rm /usr/sbin/dkms",
       .log = "Warning: dkms not installed, exit dkms uninstall.\n if you have dkms, please check "
              "PATH.Uninstall: /last Succeed.\n",
       .finding = "manifest-left",
       .goes_on = true},
      {.name = "DkmsRefuses",
       .manifest = {"DKMS latest"},
       .prepare = "file /var/lib/dkms/valta/1/source/a; mkdir -p /etc/dkms/framework.conf; "
                  "tool /usr/sbin/dkms 'echo held; exit 4'",
       .status = 140,
       .output = "Error happened in dkms remove valta/1 --all 2>&1. please check manually. remove "
                 "returns 4.\nheld\n\n",
       .log = "is empty. assume default value.\nsource_tree /usr/src\ndkms_tree /var/lib/dkms\n"
              "install_tree /lib/modules\nchecking /var/lib/dkms/valta/1\n"
              "Debug: CMD: dkms remove valta/1 --all 2>&1\n" +
              kStopped,
       .finding = "dkms-fails",
       .runs = dkms_remove("1"),
       .pattern = "dkms fails to remove valta/1",
       .mend = "tool /usr/sbin/dkms '/bin/real/rm -rf /var/lib/dkms/valta'"},
      {.name = "DkmsSourcesStay",
       .manifest = {"DKMS latest"},
       .prepare = "file /var/lib/dkms/valta/1/source/a; file /usr/src/valta-1/a; "
                  "tool /usr/sbin/dkms 'exit 3'; tool /usr/bin/rm 'exit 1'",
       .status = 140,
       .log = "Debug: CMD: /usr/src/valta-1\n"
              "Warning: remove dkms src /usr/src/1 may failed. please remove it manually.\n" +
              kStopped,
       .finding = "removal-fails",
       .runs = dkms_remove("1") + "rm -rf /usr/src/valta-1 2>&1 2>&1\n",
       .pattern = "/usr/src/valta-1 is a directory that cannot be deleted",
       .mend = "cp /bin/real/rm /usr/bin/rm; tool /usr/sbin/dkms "
               "'/bin/real/rm -rf /var/lib/dkms/valta'"},
      {.name = "DkmsTreeCannotBeRead",
       .manifest = {"DKMS latest"},
       .prepare = "file /etc/dkms/framework.conf dkms_tree=/cut; file /valta/1/source/a",
       .fault = "read:/etc/dkms/framework.conf",
       .log = "Debug: Failed to read /etc/dkms/framework.conf: Input/output error\n"
              "Warning: parse dkms file failed. assume default value.\n",
       .goes_on = true},
  };
}

std::vector<Situation> situations_of_hosts() {
  std::vector<Situation> list = situations();
  // A dry run cannot predict a fault of the C library, or a kernel that refuses without a reason.
  std::erase_if(list, [](const Situation& situation) {
    return !situation.fault.empty() ||
           situation.prepare.find("tool /sbin/rmmod") != std::string::npos;
  });
  return list;
}

}  // namespace valta
