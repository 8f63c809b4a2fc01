#include "log/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host.h"
#include "utils/host.h"

namespace valta {

TEST(Log, LevelsChoosePrefixAndConsoleAndEachRunStartsAfresh) {
  const auto log_all = [](const char* when) {
    for (int level = 0; level <= 5; ++level) {
      zvlogger::log(static_cast<LogLevel>(level), "%s %d\n", when, level);
    }
  };
  Host host;
  host.call([&] {
    testing::internal::CaptureStderr();
    set_umask();
    log_all("closed");
    zvlogger::init("/a/b/log");
    log_all("earlier run");
    zvlogger::close();
    zvlogger::close();
    zvlogger::init("/a/b/log");
    log_all("open");
    zvlogger::set_quiet();
    log_all("quiet");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "closed 1\nclosed 5\nearlier run 1\nearlier run 5\nopen 1\nopen 5\nquiet 5\n");
    struct stat status {};
    EXPECT_TRUE(stat("/a/b", &status) == 0 && (status.st_mode & 0777U) == 0755U);
  });
  EXPECT_EQ(
      host.read("/a/b/log"),
      "Debug: open 0\nopen 1\nopen 2\nWarning: open 3\nError: open 4\nEmerge: open 5\n"
      "Debug: quiet 0\nquiet 1\nquiet 2\nWarning: quiet 3\nError: quiet 4\nEmerge: quiet 5\n");
}

}  // namespace valta
