#include "log/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "throwaway_host.h"

using namespace valta;

TEST(Log, LevelsChoosePrefixAndConsoleAndEachRunStartsAfresh) {
  const auto log_all = [](const char* when) {
    for (int level = 0; level <= 5; ++level) {
      zvlogger::log(static_cast<LogLevel>(level), "%s%d ", when, level);
    }
  };
  ThrowawayHost host;
  host.call([&] {
    testing::internal::CaptureStderr();
    umask(0);
    zvlogger::close();
    log_all("closed");
    zvlogger::init("/a/b/log");
    log_all("earlier");
    zvlogger::close();
    zvlogger::close();
    zvlogger::init("/a/b/log");
    log_all("open");
    zvlogger::set_quiet();
    log_all("quiet");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "closed1 closed5 earlier1 earlier5 open1 open5 quiet5 ");
    struct stat status = {};
    EXPECT_EQ(stat("/a/b", &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0755U);
  });
  EXPECT_EQ(host.read("/a/b/log"),
            "Debug: open0 open1 open2 Warning: open3 Error: open4 Emerge: open5 "
            "Debug: quiet0 quiet1 quiet2 Warning: quiet3 Error: quiet4 Emerge: quiet5 ");
}
