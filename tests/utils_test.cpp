// The functions that read the host and run its tools, as far as complete runs do not test them.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "installer/required_utilities.h"
#include "throwaway_host.h"
#include "utils/command.h"
#include "utils/digest.h"
#include "utils/files.h"
#include "utils/host.h"
#include "utils/search_path.h"

using namespace valta;

using Fields = std::vector<std::string>;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

TEST(Readers, HoldWhatTheyMustOnEveryTextOfTheCorpus) {
  for (const auto& file : std::filesystem::directory_iterator(VALTA_SOURCE "/fuzz/corpus")) {
    std::string text;
    ASSERT_TRUE(read_file(file.path(), text));
    std::puts(file.path().c_str());  // the fuzz target ends the process if a check fails
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  }
}

TEST(OsRelease, LastLineThatMatchesWins) {
  OsRelease release{"", "kept"};
  parse_os_release("ID=ubuntu\nVARIANT_ID=\"se\"rver\n", release);
  EXPECT_EQ(release.id, "server");
  EXPECT_EQ(release.version_id, "kept");
}

TEST(Command, DeliversAllOutputAndTheExitCode) {
  ThrowawayHost host;
  host.call([] {
    std::string output;
    std::uint32_t status = 0;
    for (const std::size_t size : {1U, 1024U, 1025U, 70000U}) {
      const std::string line = "(printf %0" + std::to_string(size) + "d 7 >&2; exit 3)";
      EXPECT_TRUE(run_command(line, output, status));
      EXPECT_EQ(output.size(), size);
      EXPECT_EQ(status, 3U);
    }
    EXPECT_TRUE(run_command("no-such-tool", output, status));
    EXPECT_EQ(status, 127U);
    EXPECT_TRUE(run_command("kill -KILL $$", output, status));
    EXPECT_EQ(status, 0U);
    EXPECT_TRUE(run_command_redirect("echo out; echo err >/dev/stderr", output, status, false));
    EXPECT_EQ(output, "out\n");
    // A command that the shell would cut off is not run.
    EXPECT_FALSE(run_command_quiet_status(std::string("echo >/ran \0 more", 17), output));
    EXPECT_EQ(output, "");
  });
  EXPECT_FALSE(host.has("/ran"));
}

TEST(SearchPath, IsExtendedWithoutRepetitionAndSearchedInOrder) {
  ThrowawayHost host;
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
    EXPECT_TRUE(find_in_path_executable("rmmod"));
    EXPECT_STREQ(getenv("PATH"), "/bin:/usr/bin:/sbin:/usr/sbin");
  });
}

TEST(RequiredUtilities, AreCheckedToTheLastRow) {
  ThrowawayHost host;
  host.call([] {
    std::vector<RequiredUtility> table(256, {"rmmod", kKmodPackage, false});
    EXPECT_TRUE(check_system_utilities(table.data(), 255));
    EXPECT_FALSE(check_system_utilities(table.data(), 256));
    table[0] = {"missing", "", true};
    table[1].found = false;
    EXPECT_FALSE(check_system_utilities(table.data(), 2));
    EXPECT_FALSE(table[0].found);
    EXPECT_TRUE(table[1].found);
    EXPECT_TRUE(check_system_utilities(table.data(), -1));
    EXPECT_FALSE(check_system_utilities(nullptr, 0));
  });
}

TEST(Files, AreReadEachInTheirWay) {
  ThrowawayHost host;
  host.sh("printf 'ab\\0cd%01019def\\0gh' 7 >/nul");
  host.call([] {
    std::string chunked = "x";
    EXPECT_TRUE(read_file_chunked("/nul", chunked));
    EXPECT_EQ(chunked, "xabef");
    std::string whole = "x";
    EXPECT_TRUE(read_file("/nul", whole));
    EXPECT_EQ(whole.substr(0, 5), std::string("ab\0cd", 5));
    EXPECT_EQ(whole.size(), 1029U);
    EXPECT_TRUE(file_has_line_with("/nul", "ef"));
    EXPECT_TRUE(file_has_line_with("/proc/self/cgroup", "us"));
    EXPECT_FALSE(file_has_line_with("/proc/modules", ""));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(read_file_chunked("/proc/none", chunked));
    EXPECT_FALSE(read_file("/none", whole));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to open /proc/none\n");
  });
}

TEST(Files, ThatCannotBeReadAreNotTakenForShorterOnes) {
  std::string text = "before";
  EXPECT_FALSE(read_file("/proc/self/mem", text));
  EXPECT_EQ(text, "before");
}

TEST(Files, AreFoundByPathAndByPattern) {
  ThrowawayHost host;
  host.sh("ln -s /none /broken; ln -s /usr /linked");
  host.call([] {
    EXPECT_FALSE(path_exists("/broken"));
    EXPECT_TRUE(is_symlink("/broken"));
    EXPECT_TRUE(is_directory("/linked"));
    setenv("HOME", "/usr", 1);
    EXPECT_EQ(glob_paths("~/s[br]*"), (Fields{"/usr/sbin", "/usr/src"}));
    EXPECT_EQ(glob_paths("/none*"), Fields{});
  });
  EXPECT_EQ(host.read("/log"), "Debug: glob for /none* matchs nothing.\n");
}

TEST(Digest, IsEmptyWhereItCannotBeHad) {
  ThrowawayHost host;
  host.sh(R"(file /empty; file "/it's"; file '/back\slash'; mkdir /d)");
  host.call([] {
    EXPECT_EQ(file_md5("/empty"), kEmpty);
    EXPECT_EQ(file_md5("/back\\slash"), "\\" + kEmpty);
    EXPECT_EQ(file_md5("/missing"), "");
    EXPECT_EQ(file_md5("/d"), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(file_md5("/it's"), "");
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");  // the shell's own complaint
  });
  EXPECT_EQ(host.read("/log"),
            "Warning: MD5 for /d failed: 1 ctx: md5sum: /d: Is a directory\n\n"
            "Warning: MD5 for /it's failed: 2 ctx: \n");
  host.sh("tool /usr/bin/md5sum 'echo nothing'");
  host.call([] { EXPECT_EQ(file_md5("/empty"), ""); });
  EXPECT_EQ(host.read("/log"), "Warning: md5sum for /empty: nothing\n\n");
}
