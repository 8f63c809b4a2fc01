// Manifests and their handlers, beyond what whole runs show.

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <unistd.h>

#include "host.h"
#include "log/log.h"
#include "uninstall/dkms.h"
#include "uninstall/dkms_config.h"
#include "uninstall/manifest.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/manifest_state.h"
#include "uninstall/reserved_paths.h"
#include "uninstall/shared_path.h"
#include "utils/files.h"

static bool refuse_unlink = false;

/// Stands in for the C library's, so that a deletion can be made to fail for root too.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int unlink(const char* path) noexcept {
  errno = EROFS;
  return refuse_unlink ? -1 : unlinkat(AT_FDCWD, path, 0);
}

using namespace valta;

using testing::HasSubstr;

static ResultCode process(const std::string& manifest) {
  return ProcessManifestEntries(parse_manifest(manifest));
}

static std::string show(const std::vector<ManifestEntry>& entries) {
  std::string text;
  for (const auto& entry : entries) {
    text += "(" + entry.type + "," + entry.path + "," + entry.digest + ")";
  }
  return text;
}

TEST(Manifest, ShortAndMalformedLinesFillTheirFields) {
  EXPECT_EQ(show(parse_manifest("F /a 01 more\nD /b \nF  /a b\n\nT\nF /c 01\r\nD /d  \nV /v")),
            "(F,/a,01)(D,/b,/b)(F,,/a)(,,)(T,T,T)(F,/c,01\r)(D,/d,)(V,/v,/v)");
}

TEST(Manifest, IsWrittenIntoNewDirectoriesAndReadBack) {
  Host host;
  host.call([] {
    zvlogger::init("/log");
    EXPECT_TRUE(WriteUninstallManifest({"longer than what follows"}, "/a/b/manifest"));
    EXPECT_TRUE(WriteUninstallManifest({"VALTA /v", "FILE /v/a 01"}, "/a/b/manifest"));
    EXPECT_EQ(show(LoadUninstallManifests("/a/b/manifest")), "(VALTA,/v,/v)(FILE,/v/a,01)");
    EXPECT_EQ(show(LoadUninstallManifests("/a/b")), "");         // a directory is opened, but empty
    std::filesystem::resize_file("/a/b/manifest", 100'000'000);  // one line, NUL bytes behind "01"
    EXPECT_EQ(LoadUninstallManifests("/a/b/manifest")[2].type.size(), 100'000'000U - 22);
    EXPECT_FALSE(WriteUninstallManifest({"VALTA /v"}, "/a/b"));
  });
  EXPECT_EQ(host.read("/log"), "Error: Unable to write the uninstall manifest '/a/b'.\n");
  EXPECT_TRUE(IsReservedPath("/v/lib64/libcuda.so", "/v") && IsReservedPath("/x//lib", "/v"));
  EXPECT_FALSE(IsReservedPath("/v/lib64", "/v") || IsReservedPath("lib", "/usr"));
}

class SharedPaths : public testing::TestWithParam<std::string> {};

TEST_P(SharedPaths, StayWhileEitherPackageWasThereAtTheFirstLook) {
  const bool kept = GetParam() != "No";
  Host host;
  host.sh("file /v/file; ln -s x /v/lib; ln -s x /v/reserved; ln -s x /v/zlib; mkdir /v/dir");
  host.sh("file /other/bin/valta-driver-uninstaller");  // the prefix of a later entry
  host.sh("file /usr/local/valta-4.1.0/lib64/libcudart.so");
  host.sh(kept ? "file /v/bin/valta-driver-uninstaller" : "");
  host.sh(GetParam() == "Toolkit" ? "file /v/lib64/libcudart.so" : "");
  host.call([] {
    zvlogger::init("/log");
    EXPECT_EQ(process("VALTA /v/\nSYMLINK /v/lib\nVALTA /other\nSYMLINK /v/zlib\n"
                      "RLINK /v/reserved\nRLINK /v/dir\nRFILE /v/file " +
                      kEmpty),
              ResultCode::success);
    EXPECT_TRUE(ToolkitInstalled("") && !DriverInstalled(""));
  });
  for (const char* const path : {"/v/lib", "/v/reserved", "/v/file"}) {
    EXPECT_EQ(host.has(path), kept) << path;
  }
  EXPECT_TRUE(host.has("/v/dir") && !host.has("/v/zlib"));
  EXPECT_THAT(host.read("/log"),
              HasSubstr(kept ? GetParam() + " not uninstalled. Skipping remove /v/reserved.\n"
                             : "Uninstall: /v/reserved Succeed.\n"));
}

INSTANTIATE_TEST_SUITE_P(With, SharedPaths, testing::Values("Toolkit", "Driver", "No"));

TEST(Handlers, LinksThatCannotBeDeletedHaveCodesOfTheirOwn) {
  Host host;
  host.sh("ln -s /missing /link");
  host.call([] {
    refuse_unlink = true;
    EXPECT_EQ(process("SYMLINK /link"), ResultCode::link_failed);
    EXPECT_EQ(process("RLINK /link"), ResultCode::shared_link_failed);
    refuse_unlink = false;
    EXPECT_EQ(process(std::string("SYMLINK /link\0x", 15)), ResultCode::success);
    EXPECT_TRUE(is_symlink("/link"));  // a name with a NUL byte is not that of its front part
  });
}

TEST(Handlers, DigestsAreRememberedWithTheEmptyOneOfAService) {
  Host host;
  const std::string units = "/lib/systemd/system/";
  host.sh("file /file changed; file /original; file " + units + "a.service changed; file " + units +
          "b.service");
  host.call([&] {
    zvlogger::init("/log");
    EXPECT_EQ(process("FILE /file " + kEmpty + "\nFILE " + units + "b.service other\nSERVICE a " +
                      kEmpty),
              ResultCode::success);
    EXPECT_EQ(rename("/original", "/file"), 0);  // restored, but the remembered digest counts
    EXPECT_EQ(rename("/etc/os-release", (units + "b.service").c_str()), 0);  // and so here
    EXPECT_EQ(process("FILE /file " + kEmpty + "\nSERVICE b " + kEmpty), ResultCode::success);
    EXPECT_TRUE(ChangedFileFound);
    EXPECT_EQ(process("FILE " + units + "a.service " + kEmpty), ResultCode::success);
    EXPECT_FALSE(ChangedFileFound);
  });
  EXPECT_TRUE(host.has("/file") && !host.has(units + "b.service"));
  EXPECT_THAT(host.read("/log"),
              HasSubstr("Uninstall: md5sum of " + units + "a.service is empty."));
}

TEST(Handlers, DirectoriesGoOnlyWhenEmptyAndNeverStopTheRun) {
  Host host;
  host.sh("mkdir -p /full/empty");
  host.call([] {
    zvlogger::init("/log");
    EXPECT_EQ(process("DIR /full\nDIR /full/empty\nDIR /no/where\nDIR /full/."),
              ResultCode::success);
    EXPECT_EQ(process(std::string("DIR /full\0", 10)), ResultCode::success);
  });
  EXPECT_EQ(host.read("/log"),
            "Debug: Uninstall: /full not empty skip.\nUninstall: /full/empty Succeed.\nWarning: "
            "catched filesystem error: cannot remove: Invalid argument [/full/.] when rmdir "
            "/full/.\n");
}

TEST(Dkms, ConfigurationIsTakenByTheLetter) {
  DkmsConfig config;
  parse_framework_conf(
      "#dkms_tree=/comment\nexport source_tree=\"/s\" # c\n"
      "x source_tree=/no dkms_tree=/a\"b\"c\ninstall_tree=\n",
      config);
  EXPECT_EQ(config.source_tree + config.dkms_tree + config.install_tree, "/s # c/abc");
  parse_framework_conf("  #dkms_tree=/x\r\n", config);
  EXPECT_EQ(config.dkms_tree, "/x\r");
}

TEST(Dkms, SweepTakesRealVersionDirectoriesInOrder) {
  Host host;
  host.sh(
      "file /etc/dkms/framework.conf dkms_tree=/t; file /t/valta/2/source/a; mkdir /t/valta/1; "
      "ln -s /missing /t/valta/1/source; ln -s 1 /t/valta/link; file /t/valta/3/source; "
      "mkdir /t/valta/4; file /usr/src/valta-2/a");
  host.call([] { EXPECT_EQ(RemoveDkmsModule("any"), ResultCode::success); });
  EXPECT_EQ(host.read("/trace"),
            "dkms remove valta/1 --all 2>&1 2>&1\n  dkms remove valta/1 --all\n"
            "dkms remove valta/2 --all 2>&1 2>&1\n  dkms remove valta/2 --all\n"
            "rm -rf /usr/src/valta-2 2>&1 2>&1\n");
  host.sh("rm /usr/sbin/dkms");
  host.call([] { EXPECT_EQ(RemoveDkmsModule(""), ResultCode::dkms_missing); });
}
