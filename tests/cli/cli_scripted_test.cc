// The `pelmora admin` tool as a process against scripted administration peers: streamed output,
// exit statuses, one-line errors, connection failures and credentials rules.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/wire.h"
#include "pelmora/testing/admin_peer.h"
#include "tests/cli/child_process.h"
#include "tests/cli/cli_scripted_support.h"

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
using scripted::Admin;
using scripted::BaseEnv;
using scripted::Env;
using scripted::Gate;
using scripted::kLimit;
using scripted::kUnknownStatus;
using scripted::RefuseHello;

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

}  // namespace
}  // namespace pelmora_cli_test
