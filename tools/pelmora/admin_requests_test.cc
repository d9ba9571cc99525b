// The admin commands against a scripted administration peer: what they send, what they print,
// the one-line errors and the exit statuses.
#include "tools/pelmora/admin_requests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmora/admin/wire.h"
#include "pelmora/testing/admin_peer.h"
#include "tools/pelmora/crypto_io.h"
#include "tools/pelmora/recording_output.h"

namespace pelmora_tool {
namespace {

using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::OutputData;
using pelmora::testing::ResultData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;
using pelmora::testing::StatusData;
using pelmora::testing::TextData;
using ::testing::ElementsAre;

// A peer that accepts the login, then plays the steps the test adds; the command runs with the
// built-in account (and its access code) unless an account is set.
class AdminRequestTest : public ::testing::Test {
 protected:
  AdminRequestTest() {
    options_.host = "127.0.0.1";
    options_.port = peer_.Port();
    secrets_.access_code = pelmora::admin::internal::BuiltInAccessCode();
  }

  int Run(const HostRequest& request) {
    peer_.Start();
    int status = RunOnHost({"127.0.0.1", 0}, options_, secrets_, output_, request);
    EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
    return status;
  }
  // Login accepted, then one request answered with `replies`.
  void OneRequest(std::vector<Bytes> replies, size_t block_size = 1500) {
    ExpectLogin(peer_, true);
    ExpectRequest(peer_, block_size).ReplyWith(Answer(std::move(replies)));
  }
  // Login accepted, the hello refused as a plain peer refuses an unknown request, then the plain
  // command request answered with `replies`.
  void PlainCommand(std::vector<Bytes> replies) {
    ExpectLogin(peer_, true);
    ExpectRequest(peer_, 1500).ReplyWith(Answer(ResultData(false, 1, "Incorrect function.")));
    ExpectRequest(peer_, 1500).ReplyWith(Answer(std::move(replies)));
  }
  static HostRequest ExecOf(std::vector<std::string> words, int32_t timeout_ms) {
    return [words, timeout_ms](HostSession& s) { return Exec(s, {words, timeout_ms, false}); };
  }

  ScriptedPeer peer_;
  AdminOptions options_;
  Credentials secrets_;
  RecordingOutput output_;
};

TEST_F(AdminRequestTest, ExecOnAPlainPeerPassesOutputOnAndReportsTheStatusUnknown) {
  PlainCommand({OutputData("line 1\n"), OutputData("line 2\nli"), OutputData("ne 3\n"),
                StatusData(9000)});
  EXPECT_EQ(Run(ExecOf({"seq 3"}, 5000)), kExitFailed);
  EXPECT_THAT(output_.pieces, ElementsAre("line 1\n", "line 2\nli", "ne 3\n"));
  EXPECT_THAT(output_.errors,
              ElementsAre("pelmora: srv: the command ended, but the service does not report "
                          "exit statuses: the status is unknown"));
  ASSERT_EQ(output_.remote_statuses.size(), 1u);
  EXPECT_FALSE(output_.remote_statuses[0].has_value());
  // The hello asks for version 3; the command travels with the time-out as given.
  Bytes hello = peer_.Received(2);
  EXPECT_EQ(Bytes(hello.begin(), hello.begin() + 10), (Bytes{40, 1, 4, 0, 0, 0, 3, 0, 0, 0}));
  Bytes block = peer_.Received(4);
  EXPECT_EQ(block[0], 20);
  EXPECT_EQ(Bytes(block.begin() + 16, block.begin() + 20), (Bytes{0x88, 0x13, 0, 0}));
}

TEST_F(AdminRequestTest, ExecOnAPlainPeerQuotesAnArgumentVectorIntoOneLine) {
  PlainCommand({StatusData(9000)});
  Run(ExecOf({"printf", "%s\n", "it's", "a b"}, 0));
  Bytes block = peer_.Received(4);
  std::string line(block.begin() + 6, block.begin() + 6 + block[2] - 1);
  EXPECT_EQ(line, "printf '%s\n' 'it'\\''s' 'a b'");
}

TEST_F(AdminRequestTest, ExecOnAPlainPeerRefusesWhatTheCodePageCannotCarry) {
  ExpectLogin(peer_, true);
  ExpectRequest(peer_, 1500).ReplyWith(Answer(ResultData(false, 1, "Incorrect function.")));
  EXPECT_EQ(Run(ExecOf({"ls -d /tmp/x/Привет"}, 0)), kExitUsage);
  EXPECT_THAT(output_.errors,
              ElementsAre("pelmora: srv: the command line holds characters that the service's "
                          "code page cannot carry, and the service has only the plain command "
                          "exchange: nothing was sent"));
  EXPECT_EQ(peer_.ReceivedChunks().size(), 3u);  // login, hello size message and block
}

struct StatusCase {
  int32_t status;
  int exit_status;
  const char* line;
};

class ExecStatus : public AdminRequestTest, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(ExecStatus, EachAbnormalEndHasItsExitStatusAndLine) {
  PlainCommand({OutputData("partial\n"), StatusData(GetParam().status)});
  EXPECT_EQ(Run(ExecOf({"job"}, 1000)), GetParam().exit_status);
  EXPECT_EQ(output_.Text(), "partial\n");
  EXPECT_THAT(output_.errors, ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    AdminRequest, ExecStatus,
    ::testing::Values(StatusCase{9001, kExitNotStarted, "pelmora: srv: 9001 Create process fail"},
                      StatusCase{9002, kExitAbnormal,
                                 "pelmora: srv: 9002 Process terminated abnormally"},
                      StatusCase{9003, kExitTimedOut, "pelmora: srv: 9003 Request time out"}));

TEST_F(AdminRequestTest, ExecWithAWrongAccessCodeSendsNothing) {
  ExpectLogin(peer_, true);
  secrets_.access_code = "not the code";
  EXPECT_EQ(Run(ExecOf({"rm -rf /"}, 1000)), kExitUsage);
  EXPECT_THAT(output_.errors, ElementsAre("pelmora: srv: the command access code was refused"));
  EXPECT_EQ(peer_.ReceivedChunks().size(), 1u);
}

TEST_F(AdminRequestTest, AnAccountLogsInWithItsEncodedCredentialsAndNeedsNoAccessCode) {
  PlainCommand({StatusData(9000)});
  secrets_ = {"operator", "s3cret", ""};
  Run(ExecOf({"true"}, 1000));
  EXPECT_EQ(peer_.Received(4)[0], 20);
  std::vector<uint8_t> login = pelmora::admin::BuildLoginMessage(
      pelmora::admin::EncodeCredential("operator"), pelmora::admin::EncodeCredential("s3cret"));
  Bytes first = peer_.Received(0);
  EXPECT_EQ(Bytes(first.begin() + 11, first.begin() + 11 + login.size()), login);
}

TEST_F(AdminRequestTest, ARefusedLoginIsAConnectionFailure) {
  ExpectLogin(peer_, false);
  EXPECT_EQ(Run([](HostSession&) { return kExitOk; }), kExitConnect);
  EXPECT_THAT(output_.errors,
              ElementsAre("pelmora: srv: 5 Logon failure (login refused: this address is locked "
                          "out for a while after repeated failed logins, or the service has no "
                          "free session)"));
}

TEST(AdminRequest, ARefusedConnectionIsAConnectionFailure) {
  int port = 0;
  {
    ScriptedPeer closed;  // a port that was free a moment ago
    port = closed.Port();
  }
  AdminOptions options;
  options.host = "127.0.0.1";
  options.port = port;
  RecordingOutput output;
  EXPECT_EQ(RunOnHost({"127.0.0.1", 0}, options, {}, output, [](HostSession&) { return 0; }),
            kExitConnect);
  EXPECT_THAT(output.errors,
              ElementsAre("pelmora: srv: 10061 No connection could be made because the target "
                          "machine actively refused it. (nothing accepts connections on "
                          "127.0.0.1:" + std::to_string(port) + ")"));
}

TEST_F(AdminRequestTest, ExistsTellsFilesFoldersAndMissingPathsApart) {
  ExpectLogin(peer_, true);
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 2, "not found")));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(true)));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 2, "not found")));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 3, "not found")));
  EXPECT_EQ(Run([](HostSession& s) {
              int folder = Exists(s, "C:\\data");
              int missing = Exists(s, "C:\\nothing");
              return folder * 10 + missing;
            }),
            kExitFailed);
  EXPECT_EQ(output_.Text(), "folder\nmissing\n");
  EXPECT_EQ(peer_.Received(2)[0], 5);
  EXPECT_EQ(peer_.Received(4)[0], 6);
}

TEST_F(AdminRequestTest, ExistsReportsARefusalOtherThanNotFound) {
  OneRequest({ResultData(false, 5, "Access is denied.")});
  EXPECT_EQ(Run([](HostSession& s) { return Exists(s, "C:\\secret"); }), kExitFailed);
  EXPECT_THAT(output_.errors, ElementsAre("pelmora: srv: 5 Access is denied."));
  EXPECT_EQ(output_.Text(), "");
}

TEST_F(AdminRequestTest, RecursiveForcedCopySendsTheFolderCopyWithOverwrite) {
  OneRequest({ResultData(true)});
  EXPECT_EQ(Run([](HostSession& s) { return Copy(s, "C:\\a", "C:\\b", true, true); }), kExitOk);
  std::optional<pelmora::admin::RequestBlock> block =
      pelmora::admin::ParseRequestBlock(peer_.Received(2));
  ASSERT_TRUE(block);
  EXPECT_EQ(block->code, 12);
  ASSERT_EQ(block->args.size(), 3u);
  EXPECT_EQ(pelmora::admin::DecodeUnicodeArgument(block->args[2]), "TRUE");
}

TEST_F(AdminRequestTest, AFailedRequestPrintsTheServiceNumberAndText) {
  OneRequest({ResultData(false, 80, "The file exists.")});
  EXPECT_EQ(Run([](HostSession& s) { return Copy(s, "C:\\a", "C:\\b", false, false); }),
            kExitFailed);
  EXPECT_THAT(output_.errors, ElementsAre("pelmora: srv: 80 The file exists."));
  EXPECT_EQ(pelmora::admin::ParseRequestBlock(peer_.Received(2))->code, 11);
}

TEST_F(AdminRequestTest, TimePrintsTheServerClock) {
  OneRequest({TextData("2009-03-14 08:05:09")});
  EXPECT_EQ(Run(Time), kExitOk);
  EXPECT_EQ(output_.Text(), "2009-03-14 08:05:09\n");
}

TEST_F(AdminRequestTest, AppRootGoesTwoLevelsUpFromTheProgramPath) {
  Bytes text = TextData("C:\\qel\\bin\\x64");
  ExpectLogin(peer_, true);
  ExpectRequest(peer_).ReplyWith(Answer(SizeData(static_cast<int32_t>(text.size())))).Send(text);
  EXPECT_EQ(Run([](HostSession& s) { return AppRoot(s, "QEL"); }), kExitOk);
  EXPECT_EQ(output_.Text(), "C:\\qel\n");
}

TEST_F(AdminRequestTest, AppRootWithoutAPathIsPathNotFound) {
  OneRequest({SizeData(0)});
  EXPECT_EQ(Run([](HostSession& s) { return AppRoot(s, "vorin"); }), kExitFailed);
  EXPECT_THAT(output_.errors, ElementsAre("pelmora: srv: 76 Path not found"));
}

TEST_F(AdminRequestTest, PathWithoutAnEntrySaysSo) {
  OneRequest({SizeData(0)});
  EXPECT_EQ(Run([](HostSession& s) { return PathWithKey(s, "Nope"); }), kExitFailed);
  EXPECT_THAT(output_.errors, ElementsAre("pelmora: srv: no path is registered under \"Nope\""));
}

TEST_F(AdminRequestTest, SameMachineAnswersYesOrNoByExitStatus) {
  ExpectLogin(peer_, true);
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(true)));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false)));
  EXPECT_EQ(Run([](HostSession& s) { return SameMachine(s) * 10 + SameMachine(s); }), 1);
  EXPECT_EQ(output_.Text(), "yes\nno\n");
}

TEST(AdminCredentials, PasswordFromFileBeforeEnvironment) {
  std::string file = ::testing::TempDir() + "pelmora_pw";
  FILE* f = std::fopen(file.c_str(), "w");
  std::fputs("from-file\n", f);
  std::fclose(f);
  setenv("PELMORA_PASSWORD", "from-env", 1);
  AdminOptions options;
  options.account = "operator";
  options.password_file = file;
  EXPECT_EQ(ResolveCredentials(options, true).password, "from-file");
  options.password_file.clear();
  Credentials secrets = ResolveCredentials(options, true);
  EXPECT_EQ(secrets.password, "from-env");
  EXPECT_EQ(secrets.access_code, "");  // an account needs no access code
  unsetenv("PELMORA_PASSWORD");
  std::remove(file.c_str());
}

TEST(AdminCredentials, BuiltInAccountNeedsAnAccessCodeOnlyForExec) {
  unsetenv("PELMORA_ACCESS_CODE");
  AdminOptions options;
  EXPECT_EQ(ResolveCredentials(options, false).access_code, "");
  try {
    ResolveCredentials(options, true);
    ADD_FAILURE() << "no access code accepted";
  } catch (const CommandError& e) {
    EXPECT_STREQ(e.what(),
                 "exec with the built-in account needs the command access code: give "
                 "--access-code-file FILE or set PELMORA_ACCESS_CODE");
  }
  setenv("PELMORA_ACCESS_CODE", "code", 1);
  EXPECT_EQ(ResolveCredentials(options, true).access_code, "code");
  unsetenv("PELMORA_ACCESS_CODE");
}

}  // namespace
}  // namespace pelmora_tool
