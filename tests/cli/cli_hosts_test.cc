// How `pelmora admin` finds and logs in to its hosts, against the real pelmorad: the destination
// forms, the environment, the defaults file, the connection steps, login failures and fleets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/cli/cli_service_fixture.h"

namespace pelmora_cli_test {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
namespace fs = std::filesystem;

TEST_F(CliServiceTest, VerboseShowsTheConnectionSteps) {
  ChildProcess::Result result = Admin({"-v", "--account", "operator", "time"});
  EXPECT_EQ(result.status, 0) << result.err;
  std::string where = "127.0.0.1:" + std::to_string(service_.port());
  EXPECT_THAT(result.err, HasSubstr("pelmora: 127.0.0.1: connecting to " + where + " (time-out 10 s)\n"
                                    "pelmora: 127.0.0.1: logging in as operator\n"
                                    "pelmora: 127.0.0.1: logged in from 127.0.0.1; replies wait up to 10 s\n"));
  EXPECT_EQ(Admin({"time"}).err, "");
}

TEST_F(CliServiceTest, AWrongPasswordIsALoginFailure) {
  for (auto& [name, value] : env_) {
    if (name == "PELMORA_PASSWORD") value = "wrong";
  }
  ChildProcess::Result result = Admin({"--account", "operator", "time"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("pelmora: 127.0.0.1: 1326 "));
}

TEST_F(CliServiceTest, FleetShowsTheHostWhoseCommandFailed) {
  // A second service whose account works in a folder without the marker file.
  std::string marked = Local("marked");
  fs::create_directories(marked);
  std::ofstream(marked + "/marker").close();
  auto account = [](const std::string& folder) {
    return "[accounts.fleet]\npassword = \"" +
           pelmorad::HashPassword(std::string(pelmorad::testing::kOperatorPassword)) +
           "\"\ncommands = true\nrun_as = \"root\"\nworking_folder = \"" + folder + "\"\n";
  };
  pelmorad::testing::ServiceProcess with(account(marked));
  pelmorad::testing::ServiceProcess without(account("/"));
  ASSERT_TRUE(with.Start());
  ASSERT_TRUE(without.Start());
  std::string hosts = "127.0.0.1:" + std::to_string(with.port()) + ",127.0.0.1:" +
                      std::to_string(without.port());
  std::string failed_file = Local("failed.txt");
  ChildProcess::Result json =
      ChildProcess({"admin", "--account", "fleet", "--hosts", hosts, "--json", "--failed-file",
                    failed_file, "exec", "test -e marker"},
                   env_)
          .Finish(kLimit);
  EXPECT_EQ(json.status, 1);
  EXPECT_THAT(json.out, HasSubstr("\"status\":0,\"remote_status\":0,\"result\":\"ok\""));
  EXPECT_THAT(json.out, HasSubstr("\"status\":1,\"remote_status\":1,\"result\":\"failed\""));
  std::ifstream failed(failed_file);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(failed), {}),
            "127.0.0.1:" + std::to_string(without.port()) + "\n");
  ChildProcess::Result table = ChildProcess({"admin", "--account", "fleet", "--hosts", hosts,
                                             "exec", "test -e marker"},
                                            env_)
                                   .Finish(kLimit);
  EXPECT_THAT(table.err, HasSubstr("2 hosts: 1 ok, 1 failed"));
  EXPECT_THAT(table.err, MatchesRegex("(.|\n)*failed +1 (.|\n)*"));
}

TEST_F(CliServiceTest, FleetOfSessionsSummarisesEveryHost) {
  const int refused = 1;  // nothing listens on port 1
  std::string port = std::to_string(service_.port());
  ChildProcess::Result result =
      ChildProcess({"admin", "--hosts", "127.0.0.1:" + port + ",localhost:" + port +
                                            ",127.0.0.1:" + std::to_string(refused),
                    "--json", "time"},
                   env_)
          .Finish(kLimit);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 3);
  EXPECT_THAT(result.out,
              HasSubstr("\"port\":1,\"status\":3,\"remote_status\":null,\"result\":\"failed\""));
  ChildProcess::Result table =
      ChildProcess({"admin", "--hosts", "127.0.0.1:" + port + ",localhost:" + port, "time"}, env_)
          .Finish(kLimit);
  EXPECT_EQ(table.status, 0) << table.err;
  EXPECT_THAT(table.err, HasSubstr("2 hosts: 2 ok, 0 failed"));
  ChildProcess::Result blanks =
      ChildProcess({"admin", "--hosts", "127.0.0.1:" + port + " localhost:" + port, "time"}, env_)
          .Finish(kLimit);
  EXPECT_THAT(blanks.err, HasSubstr("2 hosts: 2 ok, 0 failed"));
}

TEST_F(CliServiceTest, AnEmptyHostListIsAnError) {
  for (const char* hosts : {"", " , "}) {
    ChildProcess::Result result = ChildProcess({"admin", "--hosts", hosts, "time"}, env_).Finish(kLimit);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "pelmora: --hosts names no host\n");
  }
}

TEST_F(CliServiceTest, TheHostTakesAccountAndPortAndTheEnvironmentFillsIn) {
  const std::string port = std::to_string(service_.port());
  ChildProcess::Result destination =
      ChildProcess({"admin", "-v", "--host", "operator@127.0.0.1:" + port, "time"}, env_)
          .Finish(kLimit);
  EXPECT_EQ(destination.status, 0) << destination.err;
  EXPECT_THAT(destination.err, HasSubstr("logging in as operator"));

  Env environment = env_;
  environment.insert(environment.end(), {{"PELMORA_HOST", "127.0.0.1"},
                                         {"PELMORA_PORT", port},
                                         {"PELMORA_ACCOUNT", "operator"}});
  ChildProcess::Result defaults = ChildProcess({"admin", "-v", "time"}, environment).Finish(kLimit);
  EXPECT_EQ(defaults.status, 0) << defaults.err;
  EXPECT_THAT(defaults.err, HasSubstr("connecting to 127.0.0.1:" + port));
  EXPECT_THAT(defaults.err, HasSubstr("logging in as operator"));

  // A flag wins over the environment: nothing listens on port 1.
  ChildProcess::Result flag =
      ChildProcess({"admin", "--port", "1", "time"}, environment).Finish(kLimit);
  EXPECT_EQ(flag.status, 3);
  EXPECT_THAT(flag.err, HasSubstr("127.0.0.1:1"));

  ChildProcess::Result conflict =
      ChildProcess({"admin", "--host", "operator@127.0.0.1", "--account", "other", "time"}, env_)
          .Finish(kLimit);
  EXPECT_EQ(conflict.status, 2);
  EXPECT_EQ(conflict.err,
            "pelmora: --host names the account operator and --account other: give one\n");
}

TEST_F(CliServiceTest, TheDefaultsFileGivesAliasesAndTheirSettings) {
  const std::string folder = service_.folder() + "/config/pelmora";
  fs::create_directories(folder);
  const std::string file = folder + "/config.toml";
  std::ofstream(Local("operator.pw")) << pelmorad::testing::kOperatorPassword << "\n";
  std::ofstream(file) << "connect_timeout = 4000\n"
                         "[hosts.box]\n"
                         "host = \"operator@127.0.0.1\"\n"
                         "port = " << service_.port() << "\n"
                         "password_file = \"" << Local("operator.pw") << "\"\n";
  fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                            fs::perms::others_read);
  Env no_password = env_;
  std::erase_if(no_password, [](const auto& pair) { return pair.first == "PELMORA_PASSWORD"; });
  ChildProcess::Result alias =
      ChildProcess({"admin", "-v", "--host", "box", "time"}, no_password).Finish(kLimit);
  EXPECT_EQ(alias.status, 0) << alias.err;
  std::string where = "127.0.0.1:" + std::to_string(service_.port());
  EXPECT_THAT(alias.err, HasSubstr("pelmora: box: connecting to " + where + " (time-out 4 s)\n"
                                   "pelmora: box: logging in as operator\n"));
  // The environment wins over the section: nothing listens on port 1.
  Env port_one = no_password;
  port_one.push_back({"PELMORA_PORT", "1"});
  ChildProcess::Result environment =
      ChildProcess({"admin", "--host", "box", "time"}, port_one).Finish(kLimit);
  EXPECT_EQ(environment.status, 3);
  EXPECT_THAT(environment.err, HasSubstr("127.0.0.1:1"));

  std::ofstream(file, std::ios::app) << "acount = \"x\"\n";
  ChildProcess::Result typo = ChildProcess({"admin", "--host", "box", "time"}, env_).Finish(kLimit);
  EXPECT_EQ(typo.status, 2);
  EXPECT_EQ(typo.err, "pelmora: " + file +
                          ": line 6: unknown key hosts.box.acount (did you mean account?)\n");
  fs::permissions(file, fs::perms::others_write, fs::perm_options::add);
  ChildProcess::Result writable =
      ChildProcess({"admin", "--host", "box", "time"}, env_).Finish(kLimit);
  EXPECT_EQ(writable.status, 2);
  EXPECT_THAT(writable.err, HasSubstr(file + ": refused, others may write to it"));
}


TEST_F(CliServiceTest, FleetHostsLogInWithTheirSectionsAccounts) {
  const std::string folder = service_.folder() + "/config/pelmora";
  fs::create_directories(folder);
  std::ofstream(Local("operator.pw")) << pelmorad::testing::kOperatorPassword << "\n";
  // Two names for the same service, each with an account of its own: "donly" may use drive D
  // only, so a listing of drive C fails for the second host and only there.
  std::ofstream(folder + "/config.toml") << "[hosts.first]\n"
                                            "host = \"operator@127.0.0.1\"\n"
                                            "password_file = \"" << Local("operator.pw") << "\"\n"
                                            "[hosts.second]\n"
                                            "host = \"127.0.0.1\"\n"
                                            "account = \"donly\"\n"
                                            "password_file = \"" << Local("operator.pw") << "\"\n";
  fs::permissions(folder + "/config.toml", fs::perms::owner_read | fs::perms::owner_write);
  Env no_password = env_;
  std::erase_if(no_password, [](const auto& pair) { return pair.first == "PELMORA_PASSWORD"; });
  ChildProcess::Result fleet =
      ChildProcess({"admin", "--hosts", "first,second", "--port", std::to_string(service_.port()),
                    "ls", "C:\\"},
                   no_password)
          .Finish(kLimit);
  EXPECT_EQ(fleet.status, 1) << fleet.err;
  EXPECT_THAT(fleet.err, HasSubstr("first   ok"));
  EXPECT_THAT(fleet.err, HasSubstr("second  failed"));
  std::string audit = service_.ErrorOutput();
  EXPECT_THAT(audit, HasSubstr("account=\"operator\" code=-1 path=\"login\" result=0"));
  EXPECT_THAT(audit, HasSubstr("account=\"donly\" code=-1 path=\"login\" result=0"));
}

}  // namespace
}  // namespace pelmora_cli_test
