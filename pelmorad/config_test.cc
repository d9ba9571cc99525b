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

TEST(Config, AWorkersCopyHoldsItsOneAccountAndNoPasswordHash) {
  std::string text = std::string(kExample) + "[accounts.other]\npassword = \"$y$other\"\n";
  std::string copy = WorkerConfigText(text, "operator");
  EXPECT_EQ(copy.find("$y$"), std::string::npos) << copy;
  Config original = ParseConfig(text, "example");
  Config worker = ParseConfig(copy, "worker");
  EXPECT_EQ(worker.FindAccount("other"), nullptr);
  Account expected = *original.FindAccount("operator");
  expected.password_hash = kWorkerPasswordHash;
  ASSERT_NE(worker.FindAccount("operator"), nullptr);
  EXPECT_TRUE(*worker.FindAccount("operator") == expected);
  EXPECT_EQ(worker.listen, original.listen);
  EXPECT_EQ(worker.drives, original.drives);
  EXPECT_EQ(worker.PathForKey("QelProgram"), original.PathForKey("QelProgram"));
  EXPECT_EQ(worker.system_directory, original.system_directory);
  EXPECT_EQ(worker.limits.sessions, 10);
  EXPECT_EQ(worker.limits.idle_seconds, 30);
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
                  "scheduler.folder must be a drive path"},
        BadConfig{"tls_only = true", "listen_tls must name an address"},
        BadConfig{"state_directory = \"var/lib\"", "state_directory must be an absolute"},
        BadConfig{"[tls]\ncertificate = \"/c.pem\"", "give both or neither"},
        BadConfig{"[tls]\ncertficate = \"/c.pem\"", "did you mean certificate?"},
        BadConfig{"[accounts.a]\npassword = \"$y$x\"\nclient_certificates = [\"SHA256:abc\"]",
                  "\"SHA256:abc\" is not a fingerprint"},
        BadConfig{"[accounts.a]\npassword = \"$y$x\"\nrequire_tls = \"yes\"",
                  "require_tls must be true"}));

TEST(Config, ReadsTheTransportKeys) {
  const std::string fingerprint = "SHA256:" + std::string(43, 'A');
  Config config = ParseConfig(R"(
listen_tls = ["0.0.0.0:8443"]
tls_only = true
state_directory = "/srv/state"
[tls]
certificate = "/etc/pelmora/tls.crt"
key = "/etc/pelmora/tls.key"
[accounts.a]
password = "$y$x"
require_tls = true
client_certificates = [")" + fingerprint + R"("]
)",
                              "transport");
  EXPECT_THAT(config.listen_tls, ::testing::ElementsAre("0.0.0.0:8443"));
  EXPECT_TRUE(config.tls_only);
  EXPECT_EQ(config.state_directory, "/srv/state");
  EXPECT_EQ(config.tls.certificate, "/etc/pelmora/tls.crt");
  EXPECT_EQ(config.tls.key, "/etc/pelmora/tls.key");
  const Account* account = config.FindAccount("a");
  ASSERT_NE(account, nullptr);
  EXPECT_TRUE(account->require_tls);
  EXPECT_THAT(account->client_certificates, ::testing::ElementsAre(fingerprint));
  Config defaults = ParseConfig("", "empty");
  EXPECT_TRUE(defaults.listen_tls.empty());
  EXPECT_FALSE(defaults.tls_only);
  EXPECT_EQ(defaults.state_directory, "/var/lib/pelmora");
}

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

struct UnknownKey {
  const char* text;
  const char* refusal;
};

TEST(Config, UnknownKeysAreRefusedWithTheirLineAndTheNearestKnownKey) {
  const UnknownKey cases[] = {
      {"[accounts.ops]\npassword = \"$y$j9T$abc$def\"\ncomands = true\n",
       "s: line 3: unknown key accounts.ops.comands (did you mean commands?)"},
      {"listn = []\n", "s: line 1: unknown key listn (did you mean listen?)"},
      {"[limits]\nidle_second = 5\n",
       "s: line 2: unknown key limits.idle_second (did you mean idle_seconds?)"},
      {"[system]\nshel = '/bin/sh'\n", "s: line 2: unknown key system.shel (did you mean shell?)"},
      {"[scheduler]\nenable = true\n",
       "s: line 2: unknown key scheduler.enable (did you mean enabled?)"},
      {"colour = 1\n", "s: line 1: unknown key colour"},
  };
  for (const UnknownKey& test : cases) {
    SCOPED_TRACE(test.text);
    try {
      ParseConfig(test.text, "s");
      ADD_FAILURE() << "accepted";
    } catch (const pelmora::Error& error) {
      EXPECT_EQ(error.Number(), 87);
      EXPECT_EQ(error.Description(), test.refusal);
    }
  }
}

// A scratch folder (root's, 0700) for files whose permissions a test sets.
class ConfigFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char folder_template[] = "/tmp/pelmorad-config-XXXXXX";
    ASSERT_NE(::mkdtemp(folder_template), nullptr);
    folder_ = folder_template;
  }
  void TearDown() override { std::system(("rm -rf '" + folder_ + "'").c_str()); }

  std::string Write(const std::string& relative, mode_t mode) {
    std::string path = folder_ + "/" + relative;
    std::ofstream(path) << "listen = [\"127.0.0.1:0\"]\n";
    ::chmod(path.c_str(), mode);
    return path;
  }

  // The description LoadConfig refuses `path` with, "" when it loads.
  static std::string Refusal(const std::string& path) {
    try {
      LoadConfig(path);
      return "";
    } catch (const pelmora::Error& error) {
      return error.Description();
    }
  }

  std::string folder_;
};

TEST_F(ConfigFile, RefusesWhatAnotherUserCouldChange) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to give files away";
  EXPECT_EQ(Refusal(Write("fine.toml", 0600)), "");
  EXPECT_EQ(Refusal(Write("readable.toml", 0644)), "");  // only a warning
  std::string group = Write("group.toml", 0660);
  EXPECT_EQ(Refusal(group), group + ": refused, the file is writable by its group");
  std::string foreign = Write("foreign.toml", 0600);
  ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
  EXPECT_THAT(Refusal(foreign), ::testing::HasSubstr("belongs to a user other than root"));

  std::string open_folder = folder_ + "/open";
  ::mkdir(open_folder.c_str(), 0777);
  ::chmod(open_folder.c_str(), 0777);
  std::string inside = Write("open/inside.toml", 0600);
  EXPECT_THAT(Refusal(inside), ::testing::HasSubstr("the folder " + open_folder + " can be"));
  // A link in a writable folder could be pointed elsewhere, even when its target is safe.
  std::string link = open_folder + "/link.toml";
  ASSERT_EQ(::symlink((folder_ + "/fine.toml").c_str(), link.c_str()), 0);
  EXPECT_THAT(Refusal(link), ::testing::HasSubstr("can be changed by other users"));
  // A sticky folder protects the entries of root and the service's user.
  std::string sticky = folder_ + "/sticky";
  ::mkdir(sticky.c_str(), 0777);
  ::chmod(sticky.c_str(), 01777);
  EXPECT_EQ(Refusal(Write("sticky/safe.toml", 0600)), "");
  // A folder of another user above the file.
  std::string theirs = folder_ + "/theirs";
  ::mkdir(theirs.c_str(), 0755);
  std::string below = Write("theirs/below.toml", 0600);
  ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
  EXPECT_THAT(Refusal(below), ::testing::HasSubstr("the folder " + theirs + " can be"));
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
