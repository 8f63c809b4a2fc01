// Runs that are interrupted at every command, and tools that fail in every way: whatever happens,
// no file is lost that changed since installation or that could not be checked.

#include <csignal>
#include <gmock/gmock.h>

#include "host.h"

using namespace valta;
using testing::ContainsRegex;

class Interrupted : public testing::TestWithParam<std::string> {};

TEST_P(Interrupted, RunIsFinishedByASecondOne) {
  Host undisturbed;
  undisturbed.install_sample();
  ASSERT_EQ(undisturbed.run().status, 0);
  const int commands = std::stoi(undisturbed.read("/run/commands"));
  ASSERT_GT(commands, 20);
  for (int command = 1; command <= commands; ++command) {
    SCOPED_TRACE(command);
    Host host;
    host.install_sample();
    const Outcome killed = host.run(GetParam() + "=" + std::to_string(command));
    EXPECT_EQ(killed.status, 128 + SIGKILL);
    EXPECT_TRUE(killed.log.ends_with('\n') && undisturbed.read(kLog).starts_with(killed.log));
    const Outcome second = host.run();
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.log, testing::Not(ContainsRegex("Error: ")));
    EXPECT_EQ(host.files(), undisturbed.files());
    EXPECT_EQ(host.read("/proc/modules"), undisturbed.read("/proc/modules"));
    EXPECT_THAT(host.read("/usr/local/valta-4.1.0/etc/site.conf"), ContainsRegex("changed by"));
  }
}

INSTANTIATE_TEST_SUITE_P(Each, Interrupted, testing::Values("KILL_BEFORE", "KILL_AFTER"));

/// A tool, the status that a run comes to for each way of breaking it, and what the log says then.
struct Tool {
  std::string path;
  std::vector<int> statuses;
  std::string why_failed;     ///< regular expression
  std::string why_succeeded;  ///< regular expression
  bool needed_to_check = false;
  std::string prepare = {};  ///< shell commands
};

void PrintTo(const Tool& tool, std::ostream* stream) { *stream << tool.path; }

class BrokenTool : public testing::TestWithParam<Tool> {};

TEST_P(BrokenTool, EndsTheRunWithItsStatusAndCostsNothingUnchecked) {
  const Tool& tool = GetParam();
  const std::vector<std::string> ways = {"exit 1", "", "kill -KILL $$", "printf %070000d 1; exit 1",
                                         R"(printf "\377\001\n")"};
  const std::string prefix = "/usr/local/valta-4.1.0";
  for (std::size_t i = 0; i < ways.size(); ++i) {
    SCOPED_TRACE(ways[i]);
    Host host;
    host.install_sample();
    host.sh(tool.prepare);
    host.sh(ways[i].empty() ? "rm " + tool.path : "tool " + tool.path + " '" + ways[i] + "'");
    const Outcome run = host.run();
    EXPECT_EQ(run.status, tool.statuses[i]);
    EXPECT_THAT(run.log, ContainsRegex(run.status == 0 ? tool.why_succeeded : tool.why_failed));
    EXPECT_TRUE(host.has(prefix + "/etc/site.conf"));
    const bool kept = host.has(prefix + "/bin/zvsmi") && host.has(prefix + "/lib64/libcuda.so.1") &&
                      host.has("/lib/systemd/system/valta-y@.service");
    EXPECT_TRUE(kept || !tool.needed_to_check);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Each, BrokenTool,
    testing::Values(
        Tool{"/sbin/rmmod", {43, 0, 43, 43, 43}, "'zvrfs' failed", "utility 'rmmod'", true},
        Tool{"/sbin/depmod", {5, 5, 5, 5, 0}, "Failed to depmod", "Successfully"},
        Tool{"/usr/bin/md5sum", {0, 0, 0, 0, 0}, "", "(MD5|md5sum) for .*zvsmi", true},
        Tool{"/usr/sbin/dkms", {140, 0, 140, 140, 0}, "failed in removing", "dkms not|CMD: /usr"},
        Tool{"/usr/bin/systemctl", {145, 145, 145, 145, 145}, "service:valta-agent failed", ""},
        Tool{"/usr/bin/systemd-escape", {0, 0, 0, 0, 0}, "", "service:valta-y@0 success"},
        Tool{"/usr/bin/rm", {140, 140, 140, 140, 0}, "remove dkms src", "Successfully"},
        Tool{"/bin/sh", {43, 43, 43, 43, 43}, "'zvrfs' failed", "", true},
        Tool{
            "/bin/sh", {0, 0, 0, 0, 0}, "", "(MD5|md5sum) for .*zvsmi", true, ": >/proc/modules"}));
