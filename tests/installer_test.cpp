// The installer object and the state of kernel modules, as far as complete runs do not test them.

#include <gtest/gtest.h>
#include <regex>
#include <sys/utsname.h>

#include "installer/driver_installer.h"
#include "installer/kernel_module.h"
#include "installer/ofed.h"
#include "installer/required_utilities.h"
#include "throwaway_host.h"
#include "uninstall/install_root.h"

using namespace valta;

TEST(DriverInstaller, DerivesItsFieldsAndRefusesToInstall) {
  ThrowawayHost host;
  host.call([] {
    const auto prefix_for = [](const std::string& toolkit_path) {
      DriverConfig config;
      config.texts[DriverConfig::kToolkitPath] = toolkit_path;
      return DriverInstaller(config).driver_prefix();
    };
    EXPECT_EQ(prefix_for(default_install_root() + "/"), default_install_root() + "/");
    EXPECT_EQ(prefix_for("/opt/toolkit"), std::string("/opt/toolkit/valta-") + kStackVersion + "/");
    DriverInstaller installer{DriverConfig()};
    EXPECT_EQ(installer.os_version(), "12");
    EXPECT_EQ(installer.install_driver(), ResultCode::failure);
    EXPECT_EQ(installer.install_firmware(), ResultCode::failure);
    EXPECT_EQ(installer.write_host_configuration(), ResultCode::failure);
  });
  EXPECT_EQ(join_enabled({{"a=1", true}, {"b=2", false}, {"c=3", true}}), "a=1 c=3");
}

TEST(RequiredUtilities, ComeFromTheirPackages) {
  std::string packages;
  for (const RequiredUtility& utility : kInstallUtilities) {
    packages += std::string(utility.name) + ":" + utility.package + " ";
  }
  EXPECT_EQ(packages,
            "ldconfig:glibc ldd:glibc grep:grep dmesg:util-linux tail:coreutils cut:coreutils "
            "tr:coreutils sed:sed objcopy:binutils insmod:module-init-tools' or 'kmod "
            "modprobe:module-init-tools' or 'kmod rmmod:module-init-tools' or 'kmod "
            "lsmod:module-init-tools' or 'kmod depmod:module-init-tools' or 'kmod gcc:gcc "
            "make:make ld:binutils ");
}

TEST(ModuleStatus, ComesFromTheFirstLineOfExactlyThatName) {
  const std::string list =
      "zephanor_x 1 3 -\nmy_zephanor 1 3 -\nzephanor\t8\t05 - Live\nzephanor 8 7\nbroken 8\n" +
      std::string(1'000'000, 'h') + "\nused 8 10 " + std::string(200'000, 'u') + ", Live 0x0\n";
  const auto status = [&](const std::string& name) { return module_status_in(list, name); };
  EXPECT_EQ(status("zephanor"), ModuleStatus::unreferenced);
  EXPECT_EQ(status("used"), ModuleStatus::in_use);
  EXPECT_EQ(status("my|broken"), ModuleStatus::not_loaded);
  // The pattern is cut at 127 characters: a long name first cuts off its end, then makes it
  // invalid.
  EXPECT_EQ(status(std::string(85, 'n') + "|used"), ModuleStatus::in_use);
  EXPECT_THROW(static_cast<void>(status(std::string(120, 'n'))), std::regex_error);
}

TEST(ModuleStatus, NameWithGroupsIsAMatchError) {
  ThrowawayHost host;
  host.load_module("ab");
  host.call([] { EXPECT_EQ(module_status("(a)b|(c)"), ModuleStatus::match_error); });
  EXPECT_EQ(host.read("/log"),
            "Debug: get module status on module: (a)b|(c) Match size incorrect: 5\nDebug: **ab "
            "16384 0 - Live 0x0**\nDebug: **a**\nDebug: ****\nDebug: **16384**\nDebug: **0**\n");
}

TEST(Ofed, IsPresentWithAllItsFilesWhateverItsVersion) {
  ThrowawayHost host;
  const auto expect = [&](bool present, const std::string& log) {
    host.call([&] { EXPECT_EQ(ofed_present(), present); });
    EXPECT_EQ(host.read("/log"), log);
  };
  utsname kernel{};
  ASSERT_EQ(uname(&kernel), 0);
  const std::string running = kernel.release;
  const std::string sources = "/usr/src/ofa_kernel/";
  host.sh("for version in " + running + " 1.2; do file " + sources + "$version/Module.symvers; " +
          "file " + sources + "$version/include/rdma/peer_mem.h; done");
  host.sh("ln -s " + running + " " + sources + "default");
  expect(true, "Debug: Use OFED: " + sources + running + ", version: " + running + "\n");
  host.sh("rm " + sources + "default; ln -s 1.2 " + sources + "default");
  expect(true, "Debug: Use OFED: " + sources + "1.2, version: 1.2\nWarning: Version of OFED is " +
                   "1.2, not the same as running kernel " + running + ".\n");
  for (const std::string missing : {"/Module.symvers", "/include/rdma/peer_mem.h"}) {
    host.sh("rm " + sources + "default" + missing);
    expect(false, "Debug: OFED dir [" + sources + "default" + missing + "] is not exist.\n");
  }
}
