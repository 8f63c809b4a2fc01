// The corners of the system access layer that whole runs do not reach.

#include <cstdlib>
#include <gtest/gtest.h>

#include "host.h"
#include "log/log.h"
#include "utils/command.h"
#include "utils/digest.h"
#include "utils/files.h"
#include "utils/host.h"
#include "utils/search_path.h"
#include "utils/system_utilities.h"

using namespace valta;

using Fields = std::vector<std::string>;

TEST(OsRelease, LastLineThatMatchesWins) {
  OsRelease release{"", "kept"};
  parse_os_release("ID=ubuntu\nVARIANT_ID=\"se\"rver\nVERSION_ID=\"12\"", release);
  EXPECT_EQ(release.id + release.version_id, "server12");
}

TEST(Command, DeliversAllOutputAndTheExitCode) {
  Host host;
  host.call([] {
    std::string output;
    std::uint32_t status = 0;
    for (const std::size_t size : {1U, 1024U, 1025U, 70000U}) {
      const std::string line = "(printf %0" + std::to_string(size) + "d 7 >&2; exit 3)";
      EXPECT_TRUE(run_command(line, output, status) && status == 3 && output.size() == size);
    }
    EXPECT_TRUE(run_command("no-such-tool", output, status) && status == 127);
    EXPECT_TRUE(run_command("kill -KILL $$", output, status) && status == 0);
    EXPECT_TRUE(run_command_redirect("echo out; echo err >/dev/stderr", output, status, false));
    EXPECT_EQ(output, "out\n");
    // What the shell cannot be given whole is not run at all.
    EXPECT_FALSE(run_command_quiet_status(std::string("echo >/ran \0 more", 17), output));
    EXPECT_EQ(output, "");
    EXPECT_FALSE(path_exists("/ran"));
  });
}

TEST(SearchPath, IsExtendedWithoutRepetitionAndSearchedInOrder) {
  Host host;
  host.sh("file /a/rmmod; file /a/plain; ln -s /sbin/rmmod /rooted");
  host.call([] {
    const auto path_after = [](const char* path, const char* name) {
      setenv("PATH", path, 1);
      const std::string found = find_in_path_executable(name) ? "+" : "-";
      return found + getenv("PATH");
    };
    EXPECT_EQ(path_after("/bin:/a:/bin", "plain"), "-/bin:/a:/usr/bin:/sbin:/usr/sbin");
    EXPECT_EQ(path_after("/a::/b::", "rooted"), "+/a::/b:/bin:/usr/bin:/sbin:/usr/sbin");
    EXPECT_EQ(which("rooted"), "");  // skips empty fields, and takes any file
    EXPECT_EQ(which("rmmod"), "/a/rmmod");
    unsetenv("PATH");
    EXPECT_EQ(which("rmmod"), "");
    std::vector<RequiredUtility> table(256, {"rmmod", kKmodPackage, false});
    EXPECT_TRUE(check_system_utilities(table.data(), 255));
    EXPECT_STREQ(getenv("PATH"), "/bin:/usr/bin:/sbin:/usr/sbin");
    EXPECT_FALSE(check_system_utilities(table.data(), 256));
    table[0] = {"missing", "", true};
    table[1].found = false;
    EXPECT_FALSE(check_system_utilities(table.data(), 2) || table[0].found || !table[1].found);
    EXPECT_TRUE(check_system_utilities(table.data(), -1));
    EXPECT_FALSE(check_system_utilities(nullptr, 0));
  });
}

TEST(Files, AreReadAndTestedEachInItsWay) {
  Host host;
  host.sh("printf 'ab\\0cd%01019def\\0gh' 7 >/nul; mkdir /d; ln -s /d /link; ln -s /none /broken");
  host.call([] {
    std::string chunked = "x";
    std::string whole = "x";
    EXPECT_TRUE(read_file_chunked("/nul", chunked) && read_file("/nul", whole));
    EXPECT_EQ(chunked, "xabef");
    EXPECT_EQ(whole.substr(0, 5) + std::to_string(whole.size()), std::string("ab\0cd1029", 9));
    EXPECT_TRUE(file_has_line_with("/nul", "ef") && file_has_line_with("/proc/self/cgroup", "us"));
    EXPECT_FALSE(file_has_line_with("/proc/modules", ""));
    EXPECT_TRUE(read_file("/d", whole) && whole.empty());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(read_file_chunked("/proc/none", chunked) || read_file("/none", whole));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to open /proc/none\n");
    EXPECT_TRUE(is_directory("/link") && is_symlink("/link") && is_symlink("/broken"));
    EXPECT_FALSE(path_exists("/broken") || is_symlink("/d") || is_directory("/nul"));
    EXPECT_FALSE(path_exists(std::string("/nul\0", 5)));
    setenv("HOME", "/usr", 1);
    EXPECT_EQ(glob_paths("~/s*"), (Fields{"/usr/sbin", "/usr/src"}));
  });
}

TEST(Digest, IsEmptyWhereItCannotBeHad) {
  Host host;
  host.sh(R"(file /empty; file "/it's"; file '/back\slash'; mkdir /d)");
  host.call([] {
    zvlogger::init("/log");
    EXPECT_EQ(file_md5("/empty") + file_md5("/back\\slash"), kEmpty + "\\" + kEmpty);
    EXPECT_EQ(file_md5("/missing") + file_md5("/d"), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(file_md5("/it's"), "");
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");  // the shell's own complaint
    EXPECT_EQ(glob_paths("/none*"), Fields{});
  });
  EXPECT_EQ(host.read("/log"),
            "Warning: MD5 for /d failed: 1 ctx: md5sum: /d: Is a directory\n\n"
            "Warning: MD5 for /it's failed: 2 ctx: \nDebug: glob for /none* matchs nothing.\n");
}
