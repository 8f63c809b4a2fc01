// Manifests and their handlers, as far as complete runs do not test them.

#include <filesystem>
#include <gmock/gmock.h>

#include "throwaway_host.h"
#include "uninstall/dkms.h"
#include "uninstall/dkms_config.h"
#include "uninstall/install_root.h"
#include "uninstall/manifest.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/manifest_state.h"
#include "uninstall/reserved_paths.h"
#include "uninstall/shared_path.h"

using namespace valta;
using testing::HasSubstr;

namespace {

ResultCode process(const std::string& manifest) {
  return ProcessManifestEntries(parse_manifest(manifest));
}

}  // namespace

TEST(Manifest, FieldsAreTakenToTheLetter) {
  EXPECT_EQ(parse_manifest("SERVICE u  \n").at(0).digest, "");
  EXPECT_EQ(parse_manifest("FILE /a 01\r\n").at(0).digest, "01\r");
}

TEST(Manifest, IsWrittenIntoNewDirectoriesAndReadBack) {
  ThrowawayHost host;
  host.call([] {
    EXPECT_TRUE(WriteUninstallManifest({"longer than what follows"}, "/a/b/manifest"));
    EXPECT_TRUE(WriteUninstallManifest({"VALTA /v", "FILE /v/a 01"}, "/a/b/manifest"));
    EXPECT_EQ(LoadUninstallManifests("/a/b/manifest").at(1).digest, "01");
    std::filesystem::resize_file("/a/b/manifest", 100'000'000);  // one line, NUL bytes behind "01"
    EXPECT_EQ(LoadUninstallManifests("/a/b/manifest").at(2).type.size(), 100'000'000U - 22);
    EXPECT_FALSE(WriteUninstallManifest({"VALTA /v"}, "/a/b"));
    EXPECT_FALSE(WriteUninstallManifest({"VALTA /v"}, std::string("/front\0/manifest", 16)));
  });
  EXPECT_FALSE(host.has("/front"));
  EXPECT_EQ(host.read("/log"),
            "Error: Unable to write the uninstall manifest '/a/b'.\n"
            "Error: Unable to write the uninstall manifest '/front'.\n");
}

TEST(ReservedPaths, AreComparedBehindTheLengthOfThePrefix) {
  EXPECT_TRUE(IsReservedPath("/v/lib64/libcuda.so", "/v"));
  EXPECT_TRUE(IsReservedPath("/x//lib", "/v"));
  EXPECT_FALSE(IsReservedPath("/v/lib64", "/v"));
  EXPECT_FALSE(IsReservedPath("lib", "/usr"));
  for (const std::string path :
       {"bin/zvsmi", "lib", "lib64/libcuda.so", "lib64/libcuda.so.1", "lib64/libzvml.so",
        "lib64/libzvthunk.so", "lib64/libzvlogger.so", "EULA.txt", "copyright"}) {
    EXPECT_TRUE(IsReservedPath("/v/" + path, "/v")) << path;
  }
}

TEST(SharedPaths, StayByWhatTheFirstLookFinds) {
  ThrowawayHost host;
  host.sh("file /v/lib64/libcudart.so; file /v/bin/valta-driver-uninstaller; ln -s x /v/lib");
  host.sh("ln -s x /v/zlib; mkdir /v/directory");
  host.sh("file " + default_install_root() + "/lib64/libcudart.so");
  host.call([] {
    EXPECT_EQ(process("SYMLINK /v/zlib\nVALTA /v/\nRLINK /v/lib\nVALTA /other\n"
                      "SYMLINK /v/lib\nRLINK /v/directory\nRFILE /v/file x"),
              ResultCode::success);
    EXPECT_TRUE(ToolkitInstalled("/v"));
    EXPECT_TRUE(DriverInstalled("/v/"));
    EXPECT_TRUE(ToolkitInstalled(""));
    EXPECT_FALSE(DriverInstalled(""));
  });
  EXPECT_FALSE(host.has("/v/zlib"));
  EXPECT_THAT(host.read("/log"),
              HasSubstr("Toolkit not uninstalled. Skipping remove /v/lib.\nDebug: Installed path"));
}

TEST(Handlers, NameWithANulByteIsNotThatOfItsFrontPart) {
  ThrowawayHost host;
  host.sh("ln -s /missing /link; file /file; mkdir /directory");
  host.call([] {
    for (const std::string type : {"SYMLINK /link", "FILE /file", "DIR /directory"}) {
      EXPECT_EQ(process(type + '\0' + " " + kEmpty), ResultCode::success);
    }
  });
  EXPECT_EQ(host.files(), "/directory/\n/file\n/link\n/log\n");
}

TEST(Handlers, DigestsAreRememberedWithTheEmptyOneOfAService) {
  ThrowawayHost host;
  const std::string units = "/lib/systemd/system/";
  host.sh("file /file changed; file /original; file " + units + "a.service changed; file " + units +
          "b.service");
  host.call([&] {
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
  EXPECT_TRUE(host.has("/file"));
  EXPECT_FALSE(host.has(units + "b.service"));
  EXPECT_THAT(host.read("/log"),
              HasSubstr("Uninstall: md5sum of " + units + "a.service is empty."));
}

TEST(Handlers, DirectoryThatIsMissingOrCannotGoStopsNothing) {
  ThrowawayHost host;
  host.sh("mkdir /empty; file /empty-file; file /file x");
  host.call([] {
    EXPECT_EQ(process("DIR /no/where\nDIR /empty/.\nDIR /empty-file\nDIR /file"),
              ResultCode::success);
  });
  EXPECT_EQ(host.read("/log"),
            "Warning: catched filesystem error: cannot remove: Invalid argument [/empty/.] when "
            "rmdir /empty/.\nUninstall: /empty-file Succeed.\n"
            "Debug: Uninstall: /file not empty skip.\n");
}

TEST(Dkms, ConfigurationIsTakenByTheLetter) {
  DkmsConfig config;
  parse_framework_conf(
      "export source_tree=\"/s\" # c\nx source_tree=/no dkms_tree=/a\"b\"c\n"
      "install_tree=\n#dkms_tree=/comment\n",
      config);
  EXPECT_EQ(config.source_tree, "/s # c");
  EXPECT_EQ(config.dkms_tree, "/abc");
  EXPECT_EQ(config.install_tree, "");
  parse_framework_conf("  #dkms_tree=/x\r\n", config);
  EXPECT_EQ(config.dkms_tree, "/x\r");
}

TEST(Dkms, SweepTakesRealVersionDirectoriesInOrder) {
  ThrowawayHost host;
  host.sh(
      "file /etc/dkms/framework.conf dkms_tree=/t; file /t/valta/2/source/a; mkdir /t/valta/1; "
      "ln -s /missing /t/valta/1/source; ln -s 1 /t/valta/link; file /t/valta/3/source; "
      "mkdir /t/valta/4; file /usr/src/valta-2/a");
  host.call([] { EXPECT_EQ(RemoveDkmsModule("any"), ResultCode::success); });
  EXPECT_EQ(host.read("/trace"),
            "dkms remove valta/1 --all 2>&1 2>&1\ndkms remove valta/2 --all 2>&1 2>&1\n"
            "rm -rf /usr/src/valta-2 2>&1 2>&1\n");
}
