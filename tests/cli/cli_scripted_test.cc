// The `pelmora admin` tool as a process against scripted administration peers: streamed output,
// exit statuses, one-line errors, credentials rules, fleets over a hosts file with --json and
// --failed-file, and the progress bar only on a terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmora/admin/wire.h"
#include "pelmora/testing/admin_peer.h"
#include "pelmora/common/system.h"
#include "pelmora/testing/web_server.h"
#include "tests/cli/child_process.h"

namespace pelmora_cli_test {
namespace {

using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::OutputData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::StatusData;
using pelmora::testing::TextData;
using ::testing::HasSubstr;
using ::testing::Not;
using Env = std::vector<std::pair<std::string, std::string>>;

constexpr std::chrono::seconds kLimit(20);

// A scratch file of this test process (ctest runs the tests as parallel processes).
std::string Scratch(const std::string& name) {
  std::string path =
      ::testing::TempDir() + "pelmora-cli-" + std::to_string(::getpid()) + "-" + name;
  std::ofstream(path).close();
  return path;
}

// The environment every run gets: the library's own folders in a scratch place, the access code.
Env BaseEnv() {
  return {{"PELMORA_HOME", ::testing::TempDir() + "pelmora-cli-home"},
          {"PELMORA_ACCESS_CODE", pelmora::admin::internal::BuiltInAccessCode()}};
}

std::vector<std::string> Admin(const ScriptedPeer& peer, std::vector<std::string> command) {
  std::vector<std::string> args = {"admin", "--host", "127.0.0.1", "--port",
                                   std::to_string(peer.Port())};
  args.insert(args.end(), command.begin(), command.end());
  return args;
}

// A one-shot gate between the peer's thread and the test.
class Gate {
 public:
  void Open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool Wait() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLimit, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

// A plain peer's answer to the hello: the failure of an unknown request.
void RefuseHello(ScriptedPeer& peer) {
  ExpectRequest(peer).ReplyWith(
      Answer(pelmora::testing::ResultData(false, 1, "Incorrect function.")));
}

constexpr const char* kUnknownStatus =
    "pelmora: 127.0.0.1: the command ended, but the service does not report exit statuses: the "
    "status is unknown\n";

TEST(CliScripted, ExecShowsEachLineBeforeTheCommandEnds) {
  ScriptedPeer peer;
  Gate first_line_seen;
  ExpectLogin(peer, true);
  RefuseHello(peer);
  ExpectRequest(peer).ReplyWith(Answer(OutputData("first line\n")));
  // The status is held back until the tool has printed the first line.
  peer.ReplyWith([&](const std::vector<Bytes>& received) {
    first_line_seen.Wait();
    return Answer(std::vector<Bytes>{OutputData("second line\n"), StatusData(9000)})(received);
  });
  peer.Start();
  ChildProcess tool(Admin(peer, {"exec", "two lines"}), BaseEnv());
  EXPECT_TRUE(tool.WaitForOutput("first line\n", kLimit));
  first_line_seen.Open();
  ChildProcess::Result result = tool.Finish(kLimit);
  EXPECT_EQ(result.status, 255);
  EXPECT_EQ(result.out, "first line\nsecond line\n");
  EXPECT_EQ(result.err, kUnknownStatus);
}

struct StatusCase {
  int32_t status;
  int exit_status;
  const char* error;
};

class CliExecStatus : public ::testing::TestWithParam<StatusCase> {};

TEST_P(CliExecStatus, ExitStatusAndOneLineError) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  RefuseHello(peer);
  ExpectRequest(peer).ReplyWith(Answer(StatusData(GetParam().status)));
  peer.Start();
  ChildProcess::Result result =
      ChildProcess(Admin(peer, {"exec", "--timeout", "500", "job"}), BaseEnv()).Finish(kLimit);
  EXPECT_EQ(result.status, GetParam().exit_status);
  EXPECT_EQ(result.err, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    CliScripted, CliExecStatus,
    ::testing::Values(StatusCase{9000, 255, kUnknownStatus},
                      StatusCase{9001, 255, "pelmora: 127.0.0.1: 9001 Create process fail\n"},
                      StatusCase{9002, 255,
                                 "pelmora: 127.0.0.1: 9002 Process terminated abnormally\n"},
                      StatusCase{9003, 255, "pelmora: 127.0.0.1: 9003 Request time out\n"}));

TEST(CliScripted, ExecRefusesWhatAPlainPeersCodePageCannotCarry) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  RefuseHello(peer);
  peer.Start();
  ChildProcess::Result result =
      ChildProcess(Admin(peer, {"exec", "ls -d /tmp/x/Привет"}), BaseEnv()).Finish(kLimit);
  EXPECT_EQ(result.status, 255);
  EXPECT_THAT(result.err, HasSubstr("cannot carry"));
  EXPECT_TRUE(peer.Finish()) << peer.Failure();
  EXPECT_EQ(peer.ReceivedChunks().size(), 3u);  // login, the hello's size message and block
}

TEST(CliScripted, FleetOfPlainPeersReportsTheStatusUnknown) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  RefuseHello(peer);
  ExpectRequest(peer).ReplyWith(Answer(StatusData(9000)));
  peer.Start();
  ChildProcess::Result result =
      ChildProcess({"admin", "--hosts", "127.0.0.1:" + std::to_string(peer.Port()), "--json",
                    "exec", "true"},
                   BaseEnv())
          .Finish(kLimit);
  EXPECT_EQ(result.status, 1);
  nlohmann::json line = nlohmann::json::parse(result.out);
  EXPECT_EQ(line["remote_status"], "unknown");
  EXPECT_EQ(line["result"], "failed");
}

TEST(CliScripted, RefusedConnectionExitsThreeWithTheLibraryText) {
  int port = 0;
  {
    ScriptedPeer gone;
    port = gone.Port();
  }
  ChildProcess::Result result =
      ChildProcess({"admin", "--host", "127.0.0.1", "--port", std::to_string(port), "time"},
                   BaseEnv())
          .Finish(kLimit);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err,
            "pelmora: 127.0.0.1: 10061 No connection could be made because the target machine "
            "actively refused it. (nothing accepts connections on 127.0.0.1:" +
                std::to_string(port) + ")\n");
}

TEST(CliScripted, ConnectionFailuresSayWhatHappened) {
  // A name with an empty label fails its look-up without asking any name server.
  ChildProcess::Result unknown =
      ChildProcess({"admin", "--host", "bad..example", "time"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(unknown.status, 3);
  EXPECT_EQ(unknown.err,
            "pelmora: bad..example: 10049 The requested address is not valid in its context. "
            "(host name not found: bad..example)\n");

  ScriptedPeer silent;
  silent.Receive(1500).Stall();
  silent.Start();
  ChildProcess::Result timed_out =
      ChildProcess(Admin(silent, {"--connect-timeout", "300", "time"}), BaseEnv()).Finish(kLimit);
  EXPECT_EQ(timed_out.status, 3);
  EXPECT_THAT(timed_out.err,
              ::testing::EndsWith("to respond. (no login answer from 127.0.0.1:" +
                                  std::to_string(silent.Port()) + " within 300 ms)\n"));

  ScriptedPeer locked;
  locked.Receive(1500).ReplyWith(Answer(pelmora::testing::ResultData(false, 5, "Access is denied.")));
  locked.Start();
  ChildProcess::Result refused = ChildProcess(Admin(locked, {"time"}), BaseEnv()).Finish(kLimit);
  EXPECT_EQ(refused.status, 3);
  EXPECT_EQ(refused.err,
            "pelmora: 127.0.0.1: 5 Access is denied. (login refused: this address is locked out "
            "for a while after repeated failed logins, or the service has no free session)\n");
}

TEST(CliScripted, PasswordOnTheCommandLineIsRefusedBeforeAnyConnection) {
  for (std::vector<std::string> args :
       {std::vector<std::string>{"admin", "--account", "op", "--password", "x", "time"},
        std::vector<std::string>{"admin", "--account", "op", "time", "--password=x"}}) {
    ChildProcess::Result result = ChildProcess(args, BaseEnv()).Finish(kLimit);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "pelmora: passwords are never taken from the command line: use --password-file, "
              "PELMORA_PASSWORD or the prompt\n");
  }
}

TEST(CliScripted, AccountPasswordComesFromTheEnvironment) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(TextData("2009-03-14 08:05:09")));
  peer.Start();
  Env env = BaseEnv();
  env.push_back({"PELMORA_PASSWORD", "pw from env"});
  ChildProcess::Result result =
      ChildProcess(Admin(peer, {"--account", "operator", "time"}), env).Finish(kLimit);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "2009-03-14 08:05:09\n");
  std::vector<uint8_t> login = pelmora::admin::BuildLoginMessage(
      pelmora::admin::EncodeCredential("operator"), pelmora::admin::EncodeCredential("pw from env"));
  Bytes packet = peer.Received(0);
  EXPECT_EQ(Bytes(packet.begin() + 11, packet.begin() + 11 + login.size()), login);
}

TEST(CliScripted, WithoutPasswordOrTerminalTheAccountIsRefused) {
  ChildProcess::Result result =
      ChildProcess({"admin", "--account", "operator", "time"}, BaseEnv(), Attach::kPipesNoTerminal)
          .Finish(kLimit);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err,
            "pelmora: no password: give --password-file FILE or PELMORA_PASSWORD, or run on a "
            "terminal to type it\n");
}

TEST(CliScripted, ExecWithTheBuiltInAccountNeedsTheAccessCode) {
  Env env = {{"PELMORA_HOME", ::testing::TempDir() + "pelmora-cli-home"}};
  ChildProcess::Result result = ChildProcess({"admin", "exec", "true"}, env).Finish(kLimit);
  EXPECT_EQ(result.status, 255);
  EXPECT_THAT(result.err, HasSubstr("needs the command access code"));
}

// Two scripted hosts that answer `time`, and one port that refuses.
struct SmallFleet {
  SmallFleet() {
    for (ScriptedPeer* peer : {&a, &b}) {
      ExpectLogin(*peer, true);
      ExpectRequest(*peer).ReplyWith(Answer(TextData("2009-03-14 08:05:09")));
      peer->Start();
    }
    {
      ScriptedPeer gone;
      refused_port = gone.Port();
    }
    hosts_file = Scratch("hosts");
    std::ofstream(hosts_file) << "# two good hosts and a bad one\n"
                              << "127.0.0.1:" << a.Port() << "   # first\n\n"
                              << "127.0.0.1:" << b.Port() << " 127.0.0.1:" << refused_port
                              << "\n";
  }
  std::string Host(int port) const { return "127.0.0.1:" + std::to_string(port); }
  ScriptedPeer a;
  ScriptedPeer b;
  int refused_port = 0;
  std::string hosts_file;
};

TEST(CliScripted, FleetJsonGivesOneObjectPerHostAndListsTheFailedOnes) {
  SmallFleet fleet;
  std::string failed = Scratch("failed");
  ChildProcess::Result result =
      ChildProcess({"admin", "--hosts-file", fleet.hosts_file, "--json", "--failed-file", failed,
                    "time"},
                   BaseEnv())
          .Finish(kLimit);
  EXPECT_EQ(result.status, 1);
  std::istringstream lines(result.out);
  int objects = 0;
  for (std::string line; std::getline(lines, line); ++objects) {
    nlohmann::json host = nlohmann::json::parse(line);
    EXPECT_EQ(host["host"], "127.0.0.1");
    bool refused = host["port"] == fleet.refused_port;
    EXPECT_EQ(host["status"], refused ? 3 : 0);
    EXPECT_EQ(host["result"], refused ? "failed" : "ok");
    EXPECT_EQ(host["output"], refused ? "" : "2009-03-14 08:05:09\n");
    EXPECT_EQ(host["error"].is_null(), !refused);
    if (refused) {
      EXPECT_EQ(host["error"]["number"], 10061);
    }
  }
  EXPECT_EQ(objects, 3);
  std::ifstream list(failed);
  std::string only;
  std::getline(list, only);
  EXPECT_EQ(only, fleet.Host(fleet.refused_port));
}

TEST(CliScripted, FleetLiveOutputPrefixesLinesAndEndsWithTheSummary) {
  SmallFleet fleet;
  ChildProcess::Result result =
      ChildProcess({"admin", "--hosts-file", fleet.hosts_file, "time"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, HasSubstr(fleet.Host(fleet.a.Port()) + ": 2009-03-14 08:05:09\n"));
  EXPECT_THAT(result.out, HasSubstr(fleet.Host(fleet.b.Port()) + ": 2009-03-14 08:05:09\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("3 hosts:")));
  EXPECT_THAT(result.err, HasSubstr("3 hosts: 2 ok, 1 failed"));
  EXPECT_THAT(result.err, HasSubstr("pelmora: " + fleet.Host(fleet.refused_port) + ": 10061 "));
  // Not a terminal: no progress bar.
  EXPECT_THAT(result.err, Not(HasSubstr("hosts,")));
  EXPECT_THAT(result.err, Not(HasSubstr("\r")));
}

TEST(CliScripted, FleetShowsAProgressBarOnATerminalUnlessQuiet) {
  {
    SmallFleet fleet;
    ChildProcess::Result result =
        ChildProcess({"admin", "--hosts-file", fleet.hosts_file, "time"}, BaseEnv(),
                     Attach::kTerminal)
            .Finish(kLimit);
    EXPECT_THAT(result.out, HasSubstr("3/3 hosts, 1 failed"));
    EXPECT_THAT(result.out, HasSubstr("\r\033[K"));
  }
  SmallFleet fleet;
  ChildProcess::Result quiet =
      ChildProcess({"admin", "--hosts-file", fleet.hosts_file, "--quiet", "time"}, BaseEnv(),
                   Attach::kTerminal)
          .Finish(kLimit);
  EXPECT_THAT(quiet.out, HasSubstr(fleet.Host(fleet.a.Port()) + ": 2009-03-14 08:05:09"));
  EXPECT_THAT(quiet.out, HasSubstr("pelmora: " + fleet.Host(fleet.refused_port) + ": 10061 "));
  EXPECT_THAT(quiet.out, Not(HasSubstr("hosts, 1 failed")));
  EXPECT_THAT(quiet.out, Not(HasSubstr("3 hosts:")));
}

TEST(CliScripted, BadHostRangeIsAUsageError) {
  ChildProcess::Result result =
      ChildProcess({"admin", "--hosts", "web[3-1]", "time"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "pelmora: reversed range \"3-1\"\n");
}

TEST(CliScripted, LogTailFollowsTheDaysFileAsItGrows) {
  std::string root = ::testing::TempDir() + "pelmora-follow-" + std::to_string(::getpid());
  std::string day = pelmora::CurrentLocalTime().Format("yyyymmdd");
  std::filesystem::create_directories(root + "/" + day.substr(0, 6));
  std::string file = root + "/" + day.substr(0, 6) + "/" + day + ".log";
  std::ofstream(file, std::ios::binary) << "2009-03-14 08:05:09,I,PC,[A:B],first\r\n";
  ChildProcess tail({"log", "tail", "-f", "--root", root}, BaseEnv());
  EXPECT_TRUE(tail.WaitForOutput("first\n", kLimit));
  std::ofstream(file, std::ios::binary | std::ios::app)
      << "2009-03-14 08:05:10,I,PC,[A:B],second\r\n";
  EXPECT_TRUE(tail.WaitForOutput("first\n2009-03-14 08:05:10,I,PC,[A:B],second\n", kLimit));
  std::filesystem::remove_all(root);
}

}  // namespace
}  // namespace pelmora_cli_test

namespace pelmora_cli_test {
namespace {

struct MistakeCase {
  std::vector<std::string> args;
  std::string err;
};

class CliMistakes : public ::testing::TestWithParam<MistakeCase> {};

TEST_P(CliMistakes, NameTheCommandAndWhatWasMeant) {
  ChildProcess::Result result = ChildProcess(GetParam().args, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, GetParam().err);
  EXPECT_EQ(result.out, "");
}

const char kAdminCommands[] =
    "exec, time, approot, path, sysdir, printq, version, same-machine, exists, cp, mv, rm, rmdir, "
    "mkdir, touch, ls, stat, get, put, fetch, keygen";

INSTANTIATE_TEST_SUITE_P(
    CliScripted, CliMistakes,
    ::testing::Values(
        MistakeCase{{"crypt"},
                    "pelmora: no command \"crypt\"; did you mean crypto?\n"
                    "pelmora: the commands of pelmora: demo, crypto, sql, tasks, zip, unzip, "
                    "http, admin, log, help\n"},
        MistakeCase{{"admin", "tim"},
                    std::string("pelmora: admin: no command \"tim\"; did you mean time?\n"
                                "pelmora: the commands of pelmora admin: ") +
                        kAdminCommands + "\n"},
        MistakeCase{{"admin"},
                    std::string("pelmora: admin: a command is needed: ") + kAdminCommands + "\n"},
        MistakeCase{{"admin", "--hots", "a,b", "time"},
                    "pelmora: admin time: no option --hots; did you mean --hosts?\n"
                    "pelmora: see pelmora admin time --help\n"},
        MistakeCase{{"admin", "exec", "ls", "-la"},
                    "pelmora: admin exec: no option -la\n"
                    "pelmora: options of the remote command go after \"--\": "
                    "pelmora admin exec -- COMMAND -la\n"},
        MistakeCase{{"admin", "ls", "C:\\", "extra"},
                    "pelmora: admin ls: unexpected argument \"extra\"; see pelmora admin ls "
                    "--help\n"},
        MistakeCase{{"help", "admin", "lss"},
                    std::string("pelmora: admin: no command \"lss\"; did you mean ls?\n"
                                "pelmora: the commands of pelmora admin: ") +
                        kAdminCommands + "\n"},
        MistakeCase{{"admin", "ls", "-x", "C:\\"},
                    "pelmora: admin ls: no option -x\npelmora: see pelmora admin ls --help\n"},
        MistakeCase{{"admin", "--port", "0", "time"},
                    "pelmora: admin time: --port: Value 0 not in range 1 to 65535; see pelmora "
                    "admin time --help\n"}));

}  // namespace
}  // namespace pelmora_cli_test

namespace pelmora_cli_test {
namespace {

TEST(CliScripted, VersionAndHelpOfOneCommand) {
  ChildProcess::Result version = ChildProcess({"--version"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.out,
              ::testing::MatchesRegex("pelmora [0-9]+\\.[0-9]+\\.[0-9]+ \\(commit ([0-9a-f]+|unknown), "
                                      "[A-Za-z]+ build\\)\n"));
  ChildProcess::Result help = ChildProcess({"help", "admin", "ls"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("Usage: pelmora admin ls [OPTIONS] FOLDER"));
  EXPECT_THAT(help.out, HasSubstr("-h,--human-readable"));
  EXPECT_EQ(help.out, ChildProcess({"admin", "ls", "--help"}, BaseEnv()).Finish(kLimit).out);
}

TEST(CliScripted, HttpShowsSizeAndRateOnATerminalButNotOverTheBody) {
  pelmora::testing::WebServer web;
  web.WriteDocument("bar.bin", std::string(300000, 'b'));
  std::string file = web.DocumentRoot() + "/../bar-out.bin";
  ChildProcess::Result to_file =
      ChildProcess({"http", "get", web.HttpUrl("/bar.bin"), "-o", file}, BaseEnv(),
                   Attach::kTerminal)
          .Finish(kLimit);
  EXPECT_EQ(to_file.status, 0) << to_file.out;
  EXPECT_THAT(to_file.out, HasSubstr("100%"));
  EXPECT_THAT(to_file.out, HasSubstr("/ 293.0 KiB"));
  EXPECT_THAT(to_file.out, HasSubstr("/s"));
  ChildProcess::Result to_terminal =
      ChildProcess({"http", "get", web.HttpUrl("/small.txt")}, BaseEnv(), Attach::kTerminal)
          .Finish(kLimit);
  EXPECT_EQ(to_terminal.status, 0);
  EXPECT_THAT(to_terminal.out, Not(HasSubstr("%")));
  EXPECT_THAT(to_terminal.out, HasSubstr("small file"));
}

}  // namespace
}  // namespace pelmora_cli_test
