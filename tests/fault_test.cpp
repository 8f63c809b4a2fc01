// Runs that are interrupted at every command, and tools that fail in every way: whatever happens,
// no file is lost that changed since installation or that could not be checked.

#include <csignal>
#include <gmock/gmock.h>

#include "host.h"

namespace valta {
namespace {

using testing::HasSubstr;

constexpr const char* kChanged = "/usr/local/valta-4.1.0/etc/site.conf";

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
    EXPECT_EQ(killed.status, -SIGKILL);
    EXPECT_TRUE(killed.log.ends_with('\n'));
    const std::string whole_log = undisturbed.read(kLog);
    EXPECT_EQ(killed.log, whole_log.substr(0, killed.log.size()));
    const Outcome second = host.run();
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.log, testing::Not(HasSubstr("Error: ")));
    EXPECT_EQ(host.files(), undisturbed.files());
    EXPECT_EQ(host.read("/proc/modules"), undisturbed.read("/proc/modules"));
    EXPECT_EQ(host.read(kChanged), undisturbed.read(kChanged));
  }
}

INSTANTIATE_TEST_SUITE_P(Each, Interrupted, testing::Values("KILL_BEFORE", "KILL_AFTER"),
                         [](const auto& when) { return when.param; });

}  // namespace
}  // namespace valta
