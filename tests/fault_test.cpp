// Runs that are interrupted at every command, and tools that fail in every way. In no case is a
// file lost that was changed since the installation or that could not be checked.

#include <csignal>
#include <gmock/gmock.h>
#include <map>

#include "throwaway_host.h"
#include "uninstall/install_root.h"

using namespace valta;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::Not;
using testing::StartsWith;

class Interrupted : public testing::TestWithParam<std::string> {};

TEST_P(Interrupted, RunIsFinishedByASecondOne) {
  ThrowawayHost undisturbed;
  undisturbed.install_sample();
  ASSERT_EQ(undisturbed.run().status, 0);
  const std::string whole_log = undisturbed.read(kLog);
  const int commands = std::stoi(undisturbed.read("/run/commands"));
  ASSERT_GT(commands, 20);
  for (int command = 1; command <= commands; ++command) {
    SCOPED_TRACE(command);
    ThrowawayHost host;
    host.install_sample();
    const Outcome killed = host.run({.variable = GetParam() + "=" + std::to_string(command)});
    EXPECT_EQ(killed.status, 128 + SIGKILL);
    EXPECT_THAT(killed.log, EndsWith("\n"));
    EXPECT_THAT(whole_log, StartsWith(killed.log));
    const Outcome second = host.run();
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.log, Not(ContainsRegex("Error: ")));
    EXPECT_EQ(host.files(), undisturbed.files());
    EXPECT_EQ(host.read("/proc/modules"), undisturbed.read("/proc/modules"));
    EXPECT_THAT(host.read(default_install_root() + "/etc/site.conf"), ContainsRegex("changed by"));
  }
}

INSTANTIATE_TEST_SUITE_P(Each, Interrupted, testing::Values("KILL_BEFORE", "KILL_AFTER"));

const std::string kMissing;  // the tool does not exist
const std::string kLies = R"(printf "\377\001\n")";
const std::vector<std::string> kWaysToBreak = {kMissing, "exit 1", "kill -KILL $$",
                                               "printf %070000d 1; exit 1", kLies};

struct Tool {
  std::string name;
  std::string path;
  std::string prepare;             ///< shell commands
  int status = 0;                  ///< of a run with the broken tool
  std::map<std::string, int> but;  ///< exceptions from `status`, by the way of failing
  std::vector<std::string> stays;  ///< paths that are left in every case
  std::vector<std::string> goes;   ///< paths that are deleted in every case
};

void PrintTo(const Tool& tool, std::ostream* stream) { *stream << tool.name; }

class BrokenTool : public testing::TestWithParam<Tool> {};

TEST_P(BrokenTool, EndsTheRunWithItsStatusAndCostsNothingUnchecked) {
  const Tool& tool = GetParam();
  for (const auto& way : kWaysToBreak) {
    SCOPED_TRACE(way);
    ThrowawayHost host;
    host.install_sample();
    host.sh(tool.prepare);
    host.sh(way == kMissing ? "rm " + tool.path : "tool " + tool.path + " '" + way + "'");
    EXPECT_EQ(host.run().status, tool.but.contains(way) ? tool.but.at(way) : tool.status);
    EXPECT_TRUE(host.has(default_install_root() + "/etc/site.conf"));
    for (const auto& path : tool.stays) {
      EXPECT_TRUE(host.has(path)) << path;
    }
    for (const auto& path : tool.goes) {
      EXPECT_FALSE(host.has(path)) << path;
    }
  }
}

const std::string kFile = default_install_root() + "/bin/zvsmi";
const std::string kSharedFile = default_install_root() + "/lib64/libcuda.so.1";
const std::string kLink = default_install_root() + "/lib";
const std::string kFirstUnit = "/lib/systemd/system/valta-agent.service";
const std::string kLastUnit = "/lib/systemd/system/valta-y@.service";
const std::string kRegistration = std::string("/var/lib/dkms/valta/") + kStackVersion;
const std::string kConfiguration = "/etc/zephanor/settings";
const std::vector<std::string> kEverything = {kFile, kLink, kLastUnit, kRegistration,
                                              kConfiguration};

const std::vector<Tool> kTools = {
    {.name = "rmmod",
     .path = "/sbin/rmmod",
     .status = 43,
     .but = {{kMissing, 0}},
     .stays = kEverything},
    {.name = "depmod",
     .path = "/sbin/depmod",
     .status = 5,
     .but = {{kLies, 0}},
     .goes = kEverything},
    {.name = "md5sum",
     .path = "/usr/bin/md5sum",
     .stays = {kFile, kSharedFile, kFirstUnit, kLastUnit},
     .goes = {kRegistration, kConfiguration}},
    {.name = "dkms",
     .path = "/usr/sbin/dkms",
     .status = 140,
     .but = {{kMissing, 0}, {kLies, 0}},
     .stays = {kRegistration},
     .goes = {kFile, kLink, kLastUnit}},
    {.name = "systemctl",
     .path = "/usr/bin/systemctl",
     .status = 145,
     .stays = {kLastUnit, kRegistration, kConfiguration},
     .goes = {kFile, kLink, kFirstUnit}},
    {.name = "systemd_escape", .path = "/usr/bin/systemd-escape", .goes = kEverything},
    {.name = "rm",
     .path = "/usr/bin/rm",
     .status = 140,
     .but = {{kLies, 0}},
     .stays = {kConfiguration},
     .goes = {kFile, kLink, kLastUnit, kRegistration}},
    {.name = "sh", .path = "/bin/sh", .status = 43, .stays = kEverything},
    {.name = "sh_without_a_driver",
     .path = "/bin/sh",
     .prepare = ": >/proc/modules",
     .stays = {kFile, kSharedFile, kLastUnit, kConfiguration}},
};

INSTANTIATE_TEST_SUITE_P(Each, BrokenTool, testing::ValuesIn(kTools),
                         testing::PrintToStringParamName());
