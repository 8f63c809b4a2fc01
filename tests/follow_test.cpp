// Types the commands that valta-driver-inspect prints, on odd hosts and on those of the other
// tests. The result is a clean host, and no precious file is lost.

#include <gmock/gmock.h>
#include <unistd.h>

#include "inspection.h"
#include "situations.h"
#include "throwaway_host.h"
#include "uninstall/install_root.h"
#include "uninstall/manifest.h"

using namespace valta;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* kTools =
    "cat cp mv ls env grep pgrep df findmnt umount mount chattr uname tar sha256sum";
const std::string kManifest = kUninstallManifestPath;

std::string active(const std::string& unit) {
  return ": >/run/systemd/units/invocation:" + unit + ".service";
}

std::vector<Situation> odd_hosts() {
  return {
      {.name = "ImmutableFile",
       .manifest = {"FILE /s/file " + kEmpty},
       .prepare = "file /s/file",
       .mounts = "chattr +i s/file"},
      {.name = "ImmutableDirectory",
       .manifest = {"FILE /s/file " + kEmpty},
       .prepare = "file /s/file",
       .mounts = "chattr +i s"},
      {.name = "ImmutableLog", .pattern = "immutable", .mounts = "chattr +i ." + kLog},
      {.name = "ReadOnlyFileSystem",
       .manifest = {"FILE /usr/share/file " + kEmpty},
       .prepare = "file /usr/share/file",
       .pattern = "read-only",
       .mend = "mount -o remount,rw,bind /usr/share",
       .mounts = "mount --bind usr/share usr/share; mount -o remount,ro,bind usr/share"},
      {.name = "BoundFile",
       .manifest = {"FILE /s/file " + kEmpty},
       .prepare = "file /s/file; file /data",
       .mounts = "mount --bind data s/file"},
      {.name = "MountInThePrefix",
       .manifest = {"DIR /s/directory "},
       .prepare = "mkdir -p /s/directory /data",
       .mounts = "mount --bind data s/directory"},
      {.name = "MountAtConfiguration",
       .prepare = "mkdir -p /etc/zephanor; file /data/x precious",
       .pattern = "a run deletes what is on it",
       .mounts = "mount --bind data etc/zephanor",
       .precious = "/data/x",
       .heeds = true},
      {.name = "MountBelowConfiguration",
       .prepare = "mkdir -p /etc/zephanor/sub; file /data/x precious",
       .pattern = "a run deletes what is on it",
       .mounts = "mount --bind data etc/zephanor/sub",
       .precious = "/data/x",
       .heeds = true},
      {.name = "LinkAtConfiguration",
       .prepare = "file /data/x precious; ln -s /data /etc/zephanor",
       .precious = "/data/x"},
      {.name = "CarriageReturns",
       .manifest = {"FILE /s/file " + kEmpty, "DIR /s "},
       .prepare = "file /s/file; sed -i 's/$/\\r/' " + kManifest},
      {.name = "Tabs",
       .manifest = {"FILE /s/file\t" + kEmpty, "DIR\t/s "},
       .prepare = "file /s/file"},
      {.name = "UpperCaseDigests",
       .manifest = {"FILE /s/file D41D8CD98F00B204E9800998ECF8427E", "DIR /s "},
       .prepare = "file /s/file"},
      {.name = "OtherDigests",
       .manifest = {"FILE /s/file e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
                    "DIR /s "},
       .prepare = "file /s/file x",
       .ends = "kept"},
      {.name = "MessageOfTheLoader",
       .manifest = {"FILE /s/file " + kEmpty},
       .prepare = "file /s/file; file /etc/ld.so.preload /missing.so",
       .pattern = "ld.so.preload",
       .mend = "rm /etc/ld.so.preload"},
      {.name = "FullLogFileSystem",
       .prepare = "file /s/file",
       .pattern = "full",
       .mend = "rm /var/log/zephanorvalta/filler",
       .mounts = "mount -t tmpfs -o size=16k,mode=755 none var/log/zephanorvalta; "
                 "mkdir var/log/zephanorvalta/uninstall; "
                 "cat /dev/zero >var/log/zephanorvalta/filler 2>/dev/null || :"},
      {.name = "NoSystemctl",
       .manifest = {"SERVICE u " + kEmpty},
       .prepare = "file /lib/systemd/system/u.service; mv /usr/bin/systemctl /aside",
       .pattern = "systemctl is not in PATH",
       .mend = "mv /aside /usr/bin/systemctl"},
      {.name = "NoMd5sum",
       .prepare = "mv /usr/bin/md5sum /aside",
       .pattern = "no md5sum",
       .mend = "mv /aside /usr/bin/md5sum"},
      {.name = "SecondVersionWithoutSources",
       .manifest = {"DKMS latest"},
       .prepare = "mkdir -p /var/lib/dkms/valta/2 /usr/src/valta-1; "
                  "ln -s /usr/src/valta-2 /var/lib/dkms/valta/2/source; "
                  "file /var/lib/dkms/valta/1/source/a; : >/run/dkms-3.2"},
      {.name = "CommentInDkmsConfiguration",
       .manifest = {"DKMS latest"},
       .prepare = "file /etc/dkms/framework.conf 'dkms_tree=/elsewhere  # big disk'; "
                  "file /elsewhere/valta/1/source/a; mkdir /usr/src/valta-1; "
                  "tool /usr/sbin/dkms '/bin/real/rm -rf /elsewhere/valta'",
       .pattern = "/elsewhere/valta/1"},
      {.name = "MaskedUnit",
       .manifest = {"SERVICE u " + kEmpty},
       .prepare = "file /lib/systemd/system/u.service; "
                  "ln -s /dev/null /etc/systemd/system/u.service"},
      {.name = "LinkedUnit",
       .manifest = {"SERVICE u " + kEmpty},
       .prepare = "file /lib/systemd/system/u.service; mkdir -p /run/systemd/system; file /opt/u; "
                  "ln -s /opt/u /run/systemd/system/u.service"},
      {.name = "GeneratedUnit",
       .manifest = {"SERVICE u " + kEmpty},
       .prepare = "file /run/systemd/generator/u.service SourcePath=/etc/init.d/u",
       .pattern = "/etc/init.d/u",
       .mend = "rm /run/systemd/generator/u.service"},
      {.name = "UnitThatRefusesToStop",
       .manifest = {"SERVICE u digest"},
       .prepare =
           kAnyDigest + "file /lib/systemd/system/u.service RefuseManualStop=yes; " + active("u"),
       .ends = "kept"},
      {.name = "UnitAtRestThatRefusesToStop",
       .manifest = {"SERVICE u digest"},
       .prepare = kAnyDigest + "file /lib/systemd/system/u.service RefuseManualStop=yes",
       .ends = "kept"},
      {.name = "UnitNameForTheShell",
       .manifest = {"SERVICE u;id " + kEmpty},
       .pattern = "a character that is special",
       .mend = "sed -i '/;id/d' " + kManifest},
      {.name = "UnitThatIsKnownWithoutReason",
       .manifest = {"SERVICE u " + kEmpty},
       .prepare = "file /lib/systemd/system/u.service",
       .instead = "/valta-driver-uninstaller; tool /usr/bin/systemctl \"exit 3\""},
      {.name = "InstanceWithoutEntry",
       .manifest = {"SERVICE t@0 " + kEmpty},
       .prepare = "file /lib/systemd/system/t@.service; ln -s /lib/systemd/system/t@.service "
                  "/etc/systemd/system/multi-user.target.wants/t@1.service"},
      {.name = "InstanceThatOnlyRuns",
       .manifest = {"SERVICE t@0 " + kEmpty},
       .prepare = "file /lib/systemd/system/t@.service; " + active("t@1"),
       .pattern = "t@1 has no line in the manifest",
       .heeds = true},
      {.name = "TemplateWithoutInstance",
       .manifest = {"SERVICE t@ " + kEmpty},
       .prepare = "file /lib/systemd/system/t@.service; " + active("t@1")},
      {.name = "ChangedUnit",
       .manifest = {"SERVICE u " + kEmpty},
       .prepare = "file /lib/systemd/system/u.service precious",
       .precious = "/lib/systemd/system/u.service"},
      {.name = "ChangedFileBesideTheUnits",
       .manifest = {"FILE /lib/systemd/system/note " + kEmpty},
       .prepare = "file /lib/systemd/system/note precious",
       .pattern = "was changed since its installation",
       .precious = "/lib/systemd/system/note"},
      {.name = "Toolkit",
       .manifest = {"VALTA /v", "RFILE /v/shared " + kEmpty},
       .prepare = "file /v/lib64/libcudart.so; file /v/shared precious",
       .ends = "shared",
       .precious = "/v/shared"},
      {.name = "InstalledCopy",
       .manifest = {"VALTA /v", "RFILE /v/shared " + kEmpty},
       .prepare = "mkdir -p /v/bin; tool /v/bin/valta-driver-uninstaller :; file /v/shared"},
      {.name = "ModuleThatAnotherOneUses",
       .prepare = "echo 'other 1 0 - Live 0x0' >>/proc/modules; "
                  "sed -i 's/^zephanor .*/zephanor 1 1 other, Live 0x0/' /proc/modules"},
      {.name = "ModuleThatDoesNotUnload",
       .pattern = "rmmod fails to unload zephanor: stuck",
       .mend = "tool /sbin/rmmod ': >/plain/proc/modules'",
       .instead = "tool /sbin/rmmod 'echo stuck >&2; exit 1'; /valta-driver-uninstaller"},
      {.name = "RunThatGoesOn",
       .pattern = "The uninstaller is running",
       .mend = "echo >/fifo; wait",
       .instead = ": >" + kLog +
                  "; mkfifo /fifo; cp /bin/real/sh /tmp/valta-driver-uninstaller; "
                  "/tmp/valta-driver-uninstaller -c ': >/started; read line </fifo' & "
                  "until [ -e /started ]; do :; done"},
      {.name = "LogIsADirectory",
       .prepare = "rm " + kLog + "; mkdir " + kLog,
       .pattern = "cannot be opened for writing",
       .mend = "rmdir " + kLog},
      {.name = "KilledRun",
       .manifest = {"VALTA /v"},
       .prepare = "mkdir -p /v/bin; tool /v/bin/valta-driver-uninstaller 'exit 1'",
       .instead = ": >" + kLog},
      {.name = "EmptyLine", .manifest = {""}},
      {.name = "NamesWithShellCharacters",
       .manifest = {"FILE /s/* " + kEmpty, "FILE /s/a;reboot " + kEmpty,
                    "FILE /s/back\\slash " + kEmpty, "FILE /s/-rf " + kEmpty,
                    "FILE /s/$(id) " + kEmpty, "FILE /s/'q' " + kEmpty, "FILE /s/\"d\" " + kEmpty,
                    "FILE /s/~&| " + kEmpty},
       .prepare = "for name in '*' 'a;reboot' 'back\\slash' -rf '$(id)' \"'q'\" '\"d\"' '~&|'; do "
                  "file \"/s/$name\" changed; done; file /s/bystander precious",
       .precious = "/s/bystander"},
      {.name = "NoManifest",
       .prepare = "rm " + kManifest + "; file " + default_install_root() + "/file precious",
       .precious = default_install_root() + "/file"},
      {.name = "ManifestIsADirectory",
       .prepare = "rm " + kManifest + "; mkdir " + kManifest + "; file " + default_install_root() +
                  "/file"},
      {.name = "PasswordsListed",
       .manifest = {"FILE /etc/passwd x"},
       .prepare = "file /etc/passwd root",
       .ends = "kept",
       .precious = "/etc/passwd"},
      {.name = "ToolListed", .manifest = {"FILE /usr/bin/rm x"}, .heeds = true},
      {.name = "TreeMountedTwice",
       .manifest = {"FILE /s/a " + kEmpty, "FILE /t/b " + kEmpty, "DIR /s "},
       .prepare = "file /s/a; file /s/b; mkdir /t",
       .mounts = "mount --bind s t"},
      {.name = "LogIsALink",
       .prepare = "file /data precious; rm " + kLog + "; ln -s /data " + kLog,
       .precious = "/data",
       .heeds = true},
      {.name = "InitialRamdiskHoldsAModule",
       .prepare = "file /boot/initrd.img-$(uname -r); tool /usr/bin/lsinitramfs "
                  "'[ -e /rebuilt ] || echo lib/zephanor.ko'; "
                  "tool /usr/sbin/update-initramfs ': >/rebuilt'",
       .pattern = "/boot/initrd.img-",
       .heeds = true},
  };
}

std::vector<Situation> all_hosts() {
  std::vector<Situation> hosts = situations_of_hosts();
  for (Situation& host : odd_hosts()) {
    hosts.push_back(std::move(host));
  }
  return hosts;
}

class Follows : public testing::TestWithParam<Situation> {
 protected:
  void SetUp() override {
    if (const std::string reason = reason_not_to_inspect(); !reason.empty()) {
      GTEST_SKIP() << reason;
    }
    if (geteuid() != 0 && GetParam().mounts.find("chattr") != std::string::npos) {
      GTEST_SKIP() << "only root makes a file immutable";
    }
  }
};

TEST_P(Follows, ToTheEndAndLosesNothing) {
  const Situation& situation = GetParam();
  ThrowawayHost host(kTools);
  host.put_faulty_programs();
  meet(situation, host);
  host.sh("file /plain/mounts '" + situation.mounts + "'");
  const std::string transcript = host.follow(
      {{"pattern", situation.pattern},
       {"mend", situation.mend},
       {"ends", situation.ends},
       {"run", situation.instead},
       {"leave",
        situation.mounts.find("chattr") == std::string::npos ? "" : "chattr -R -i /s /var"}},
      situation.heeds);
  const std::string last = transcript.substr(transcript.rfind('\n', transcript.size() - 2) + 1);
  EXPECT_THAT(last, testing::MatchesRegex("(done|clean|" + situation.ends + ") after [012]\n"))
      << transcript;
  for (const char* const trouble :
       {"yntax error", ": not found", "Predicted ", "The cause was never named"}) {
    EXPECT_THAT(transcript, Not(HasSubstr(trouble)));
  }
  if (!situation.precious.empty()) {
    EXPECT_TRUE(!host.read(situation.precious).empty() ||
                !host.read("/root/valta-kept" + situation.precious).empty())
        << transcript;
  }
  RecordProperty("end", last);
}

INSTANTIATE_TEST_SUITE_P(Each, Follows, testing::ValuesIn(all_hosts()),
                         testing::PrintToStringParamName());

}  // namespace
