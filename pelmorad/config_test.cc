#include "pelmorad/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "pelmora/common/error.h"

namespace pelmorad {
namespace {

constexpr const char* kExample = R"(
listen = ["127.0.0.1:8002", "[::1]:8002"]
[drives]
C = "/srv/pelmora/c"
d = "/srv/pelmora/d"
[paths]
QelProgram = 'C:\qel\bin'
[system]
directory = 'C:\Windows\system32'
[accounts.operator]
password = "$y$j9T$abc$def"
drives = ["C"]
read_only = true
commands = true
run_as = "pelmora"
[limits]
sessions = 10
idle_seconds = 30
)";

TEST(Config, ReadsEveryKeyOfTheExample) {
  Config config = ParseConfig(kExample, "example");
  EXPECT_THAT(config.listen, ::testing::ElementsAre("127.0.0.1:8002", "[::1]:8002"));
  EXPECT_EQ(config.drives.at('C'), "/srv/pelmora/c");
  EXPECT_EQ(config.drives.at('D'), "/srv/pelmora/d");
  EXPECT_EQ(config.PathForKey("qelprogram").value_or(""), "C:\\qel\\bin");
  EXPECT_FALSE(config.PathForKey("VorProgram").has_value());
  EXPECT_EQ(config.system_directory, "C:\\Windows\\system32");
  const Account* account = config.FindAccount("operator");
  ASSERT_NE(account, nullptr);
  EXPECT_TRUE(account->read_only);
  EXPECT_TRUE(account->commands);
  EXPECT_EQ(account->run_as, "pelmora");
  EXPECT_TRUE(account->MayUseDrive('C'));
  EXPECT_FALSE(account->MayUseDrive('D'));
  EXPECT_EQ(config.limits.sessions, 10);
  EXPECT_EQ(config.limits.idle_seconds, 30);
  EXPECT_EQ(config.limits.request_bytes, 65536);
  EXPECT_EQ(config.FindAccount("Operator"), nullptr);
}

TEST(Config, DefaultsListenOnLoopbackPort8002) {
  Config config = ParseConfig("", "empty");
  EXPECT_THAT(config.listen, ::testing::ElementsAre("127.0.0.1:8002"));
  EXPECT_TRUE(config.accounts.empty());
}

struct BadConfig {
  const char* text;
  const char* message;
};

class ConfigRefusal : public ::testing::TestWithParam<BadConfig> {};

TEST_P(ConfigRefusal, NamesTheOffendingKey) {
  try {
    ParseConfig(GetParam().text, "bad.toml");
    FAIL() << "accepted " << GetParam().text;
  } catch (const pelmora::Error& error) {
    EXPECT_EQ(error.Number(), 87);
    EXPECT_THAT(error.Description(), ::testing::HasSubstr(GetParam().message));
    EXPECT_THAT(error.Description(), ::testing::StartsWith("bad.toml: "));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, ConfigRefusal,
    ::testing::Values(
        BadConfig{"listen = [", "line 1"},
        BadConfig{"[drives]\nCD = \"/x\"", "drive \"CD\" is not a single letter"},
        BadConfig{"[drives]\nC = \"relative\"", "drives.C must be an absolute folder"},
        BadConfig{"[accounts.a]\npassword = \"plain\"", "accounts.a.password must be a crypt"},
        BadConfig{"[accounts.a]\npassword = \"$y$x\"\ndrives = [\"Z\"]", "unmapped drive Z"},
        BadConfig{"[accounts.a]\npassword = \"$y$x\"\nread_only = 1", "read_only must be true"},
        BadConfig{"[limits]\nsessions = 0", "limits.sessions must be a whole number"},
        BadConfig{"[limits]\nidle_seconds = \"5\"", "limits.idle_seconds"},
        BadConfig{"[system]\nshell = \"sh\"", "system.shell must be an absolute"},
        BadConfig{"[drives]\nC = \"/c\"\n[scheduler]\nenabled = true\nfolder = 'D:\\t'",
                  "scheduler.folder must be a drive path"},
        BadConfig{"[drives]\nC = \"/c\"\n[scheduler]\nenabled = true\nfolder = 'C:\\..\\t'",
                  "scheduler.folder must be a drive path"}));

TEST(Config, SchedulerFolderIsADrivePathPublishedUnderTasks) {
  Config config = ParseConfig(
      "[drives]\nC = \"/srv/c\"\n[scheduler]\nenabled = true\nfolder = 'C:\\pel/tasks\\'",
      "s");
  EXPECT_EQ(config.LinuxPathOf(config.scheduler.folder), "/srv/c/pel/tasks");
  EXPECT_EQ(config.PathForKey("TASKS"), "C:\\pel/tasks\\");
  EXPECT_EQ(ParseConfig("[drives]\nC = \"/c\"", "s").PathForKey("Tasks"), std::nullopt);
}

TEST(Config, RefusesAFileWritableByOthers) {
  char folder_template[] = "/tmp/pelmorad-config-XXXXXX";
  ASSERT_NE(::mkdtemp(folder_template), nullptr);
  std::string path = std::string(folder_template) + "/pelmorad.toml";
  std::ofstream(path) << "listen = [\"127.0.0.1:0\"]\n";
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
  try {
    LoadConfig(path);
    FAIL() << "a world-writable configuration was accepted";
  } catch (const pelmora::Error& error) {
    EXPECT_EQ(error.Number(), 5);
    EXPECT_EQ(error.Description(), path + ": refused, the file is writable by others");
  }
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  EXPECT_EQ(LoadConfig(path).listen.front(), "127.0.0.1:0");
  ::unlink(path.c_str());
  ::rmdir(folder_template);
}

TEST(Config, MissingFileIsError2) {
  try {
    LoadConfig("/nonexistent/pelmorad.toml");
    FAIL();
  } catch (const pelmora::Error& error) {
    EXPECT_EQ(error.Number(), 2);
  }
}

}  // namespace
}  // namespace pelmorad
