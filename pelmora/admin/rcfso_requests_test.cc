// RCFSO remote request tests: codes, argument forms and flags on the wire, local argument checks,
// the three reply forms and the log lines of each request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "pelmora/admin/internal/rcfso_test_access.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora::admin {
namespace {

using internal::RCFSOTestAccess;
using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::LogCapture;
using pelmora::testing::LogIn;
using pelmora::testing::LogLine;
using pelmora::testing::ResultData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;
using pelmora::testing::TextData;

std::string Handle(const RCFSO& fso) { return RCFSOTestAccess::Handle(fso); }

// The request block's content after code and count: each argument decoded from UTF-16LE.
std::vector<std::string> UnicodeArguments(const Bytes& block) {
  std::vector<std::string> out;
  size_t pos = 2;
  for (int i = 0; i < block[1]; ++i) {
    const size_t length = block[pos] | (block[pos + 1] << 8);
    std::string text;
    for (size_t k = 0; k + 2 < length; k += 2) text += static_cast<char>(block[pos + 4 + k]);
    out.push_back(text);
    pos += 4 + length;
  }
  return out;
}

struct ResultCase {
  const char* name;
  std::function<bool(RCFSO&)> call;
  uint8_t code;
  std::vector<std::string> args;
  const char* module;
  const char* routine;
  const char* outcome;  // "" when the request logs no outcome
};

class ResultRequestTest : public ::testing::TestWithParam<ResultCase> {};

TEST_P(ResultRequestTest, SendsItsCodeAndArgumentsAndReturnsTheResultReply) {
  const ResultCase& c = GetParam();
  for (bool outcome : {true, false}) {
    LogCapture log;
    ScriptedPeer peer;
    RCFSO fso;
    ExpectLogin(peer, true);
    ExpectRequest(peer).ReplyWith(Answer(ResultData(outcome, outcome ? 0 : 32, "in use")));
    ASSERT_TRUE(LogIn(fso, peer));
    EXPECT_EQ(c.call(fso), outcome);
    ASSERT_TRUE(peer.Finish()) << peer.Failure();
    const Bytes block = peer.Received(2);
    EXPECT_EQ(block[0], c.code);
    if (!c.args.empty()) {
      EXPECT_EQ(UnicodeArguments(block), c.args);
    }
    if (*c.outcome != '\0') {
      const std::string text = Handle(fso) + c.outcome + (outcome ? "True" : "False");
      EXPECT_TRUE(log.Has(".log", {"I", c.module, c.routine, text})) << text;
    }
    if (!outcome) {
      EXPECT_EQ(fso.ErrCode(), 32);
      EXPECT_EQ(fso.ErrDescription(), "in use");
    }
  }
}

TEST_P(ResultRequestTest, LogsTheSendFailureWhenNotConnected) {
  LogCapture log;
  RCFSO fso;
  EXPECT_FALSE(GetParam().call(fso));
  EXPECT_EQ(fso.ErrCode(), 8117);
  EXPECT_EQ(fso.ErrDescription(), "Connection has not established");
  EXPECT_EQ(log.Lines(".log").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Members, ResultRequestTest,
    ::testing::Values(ResultCase{"FileExists",
                                 [](RCFSO& f) { return f.FileExists("C:\\a"); },
                                 5,
                                 {"C:\\a"},
                                 "RSFSO",
                                 "FileExists",
                                 "** FileExists "},
                      ResultCase{"FolderExists",
                                 [](RCFSO& f) { return f.FolderExists("C:\\d"); },
                                 6,
                                 {"C:\\d"},
                                 "RSFSO",
                                 "FolderExists",
                                 "** FolderExists "},
                      ResultCase{"CreateRemoteFile",
                                 [](RCFSO& f) { return f.CreateRemoteFile("n", true, false); },
                                 7,
                                 {"n", "TRUE", "FALSE"},
                                 "RFSO",
                                 "CreateRemoteFile",
                                 "** CreateRemoteFile = "},
                      ResultCase{"CreateRemoteFolder",
                                 [](RCFSO& f) { return f.CreateRemoteFolder("d"); },
                                 8,
                                 {"d"},
                                 "RFSO",
                                 "createremotefolder",
                                 "** createremotefolder = "},
                      ResultCase{"DeleteRemoteFile",
                                 [](RCFSO& f) { return f.DeleteRemoteFile("x"); },
                                 9,
                                 {"x"},
                                 "RFSO",
                                 "DeleteRemoteFile",
                                 "** DeleteRemoteFile = "},
                      ResultCase{"DeleteRemoteFolder",
                                 [](RCFSO& f) { return f.DeleteRemoteFolder("y"); },
                                 10,
                                 {"y"},
                                 "RFSO",
                                 "DeleteRemoteFolder",
                                 "** DeleteRemoteFolder = "},
                      ResultCase{"CopyRemoteFile",
                                 [](RCFSO& f) {
                                   return f.CopyRemoteFile("a", "b", AutomationBool::FromRaw(1));
                                 },
                                 11,
                                 {"a", "b", "FALSE"},
                                 "RFSO",
                                 "CopyRemoteFile",
                                 "** CopyRemoteFile = "},
                      ResultCase{"CopyRemoteFolder",
                                 [](RCFSO& f) { return f.CopyRemoteFolder("a", "b", true); },
                                 12,
                                 {"a", "b", "TRUE"},
                                 "RFSO",
                                 "Copyremotefolder",
                                 "** Copyremotefolder = "},
                      ResultCase{"MoveRemoteFile",
                                 [](RCFSO& f) { return f.MoveRemoteFile(" a", "b "); },
                                 15,
                                 {" a", "b "},
                                 "RFSO",
                                 "MoveRemoteFile",
                                 "** MoveRemoteFile = "},
                      ResultCase{"IsSameMachineWithSvr",
                                 [](RCFSO& f) { return f.IsSameMachineWithSvr(); },
                                 17,
                                 {},
                                 "RSFSO",
                                 "IsSameMachineWithSvr",
                                 ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RCFSORequests, SendFailureTextsAreEachRequestsOwn) {
  const std::vector<std::pair<std::function<void(RCFSO&)>, LogLine>> cases = {
      {[](RCFSO& f) { f.DeleteRemoteFile("x"); },
       {"I", "RFSO", "DeleteRemoteFile", "(-1)** Send reqeust fail"}},
      {[](RCFSO& f) { f.CopyRemoteFile("a", "b", true); },
       {"I", "RFSO", "CopyRemoteFile", "(-1)** send request fail"}},
      {[](RCFSO& f) { f.IsSameMachineWithSvr(); },
       {"I", "RSFSO", "IsSameMachineWithSvr", "(-1)**send request fail"}},
      {[](RCFSO& f) { f.GetFileVersion("v"); },
       {"I", "RSFSO", "GetFileVersion", "(-1)**Send request fail"}},
      {[](RCFSO& f) { f.GetSystemTime(); },
       {"E", "RSFSO", "GetSystemDirectory", "(-1)**send request fail"}},
      {[](RCFSO& f) { f.GetPrintQ(); }, {"I", "RSFSO", "GetPrintQ", "(-1)**send request fail"}},
  };
  for (const auto& [call, line] : cases) {
    LogCapture log;
    RCFSO fso;
    call(fso);
    EXPECT_TRUE(log.Has(line.letter == "E" ? ".err" : ".log", line)) << line.text;
  }
}

TEST(RCFSORequests, BlankArgumentsAreRefusedLocally) {
  const std::vector<std::pair<std::function<void(RCFSO&)>, std::string>> cases = {
      {[](RCFSO& f) { f.GetFileVersion("  "); }, "Empty Filename"},
      {[](RCFSO& f) { f.GetPathWithKey(""); }, "Empty key"},
      {[](RCFSO& f) { f.CopyRemoteFolder(" ", "b", true); }, "Empty existign folder name"},
      {[](RCFSO& f) { f.CopyRemoteFolder("a", "   ", true); }, "Empty new folder name"},
      {[](RCFSO& f) { f.CopyRemoteFile("", "", true); }, "Empty existign file name"},
      {[](RCFSO& f) { f.CopyRemoteFile("a", " ", true); }, "Empty new file name"},
      {[](RCFSO& f) { f.MoveRemoteFile(" ", "b"); }, "Empty existign file name"},
      {[](RCFSO& f) { f.MoveRemoteFile("a", ""); }, "Empty new file name"},
      {[](RCFSO& f) { f.CreateRemoteFile(" ", true, true); }, "Empty remote file name"},
      {[](RCFSO& f) { f.DeleteRemoteFile(""); }, "Empty remote file name"},
      {[](RCFSO& f) { f.FileExists("    "); }, "Empty remote file name"},
      {[](RCFSO& f) { f.CreateRemoteFolder(""); }, "Empty remote folder name"},
      {[](RCFSO& f) { f.DeleteRemoteFolder(" "); }, "Empty remote folder name"},
      {[](RCFSO& f) { f.FolderExists(""); }, "Empty remote folder name"},
  };
  for (const auto& [call, description] : cases) {
    RCFSO fso;  // not connected: the check comes first
    call(fso);
    EXPECT_EQ(fso.ErrCode(), 8116) << description;
    EXPECT_EQ(fso.ErrDescription(), description);
  }
}

// A connected client whose one request is answered with `replies` (framed with its sequence).
class TextRequest {
 public:
  explicit TextRequest(std::vector<Bytes> replies, Bytes raw = {}) {
    ExpectLogin(peer_, true);
    ExpectRequest(peer_).ReplyWith(Answer(std::move(replies)));
    if (!raw.empty()) peer_.Send(std::move(raw));
    EXPECT_TRUE(LogIn(fso_, peer_));
  }
  RCFSO& fso() { return fso_; }
  Bytes Block() {
    EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
    return peer_.Received(2);
  }

 private:
  ScriptedPeer peer_;
  RCFSO fso_;
};

TEST(RCFSORequests, TextMessagesAreReadAsUtf16) {
  TextRequest version({TextData("6.1.7601")});
  EXPECT_EQ(version.fso().GetFileVersion("C:\\w\\k.dll"), "6.1.7601");
  const Bytes block = version.Block();
  EXPECT_EQ(block[0], 18);
  EXPECT_EQ(UnicodeArguments(block), std::vector<std::string>{"C:\\w\\k.dll"});

  TextRequest odd({Bytes{'C', 0, ':', 0, 'A'}});
  EXPECT_EQ(odd.fso().GetSystemDirectory(), "C:A");
  EXPECT_EQ(odd.Block()[0], 19);
}

TEST(RCFSORequests, FailedTextReceiveUsesTheSocketDescription) {
  LogCapture log;
  ScriptedPeer peer;
  RCFSO fso;
  ExpectLogin(peer, true);
  ExpectRequest(peer).Stall();
  ASSERT_TRUE(LogIn(fso, peer));
  fso.set_timeout(50);
  EXPECT_EQ(fso.GetFileVersion("f"), "");
  EXPECT_EQ(fso.ErrCode(), 10060);
  EXPECT_EQ(fso.ErrDescription(), DescribeError(10060));
  EXPECT_TRUE(
      log.Has(".err", {"E", "RSFSO", "GetFileVersion", Handle(fso) + "**RecvMessage fail"}));
  EXPECT_EQ(fso.GetSystemDirectory(), "");
  EXPECT_TRUE(
      log.Has(".log", {"I", "RSFSO", "GetSystemDirectory", Handle(fso) + "**Get data size fail"}));
  fso.Disconnect();
}

TEST(RCFSORequests, GetSystemTimeReadsTheServersClock) {
  TextRequest iso({TextData("2009-03-14 08:05:09")});
  EXPECT_EQ(iso.fso().GetSystemTime().ToCivil(), (CivilTime{2009, 3, 14, 8, 5, 9}));
  EXPECT_EQ(iso.Block()[0], 21);
  for (const char* text : {"3/14/2009 8:05:09 PM", "14/03/2009 20:05:09", "14.03.2009 20:05:09"}) {
    TextRequest clock({TextData(text)});
    EXPECT_EQ(clock.fso().GetSystemTime().ToCivil(), (CivilTime{2009, 3, 14, 20, 5, 9})) << text;
    EXPECT_EQ(clock.fso().ErrCode(), 0) << text;
  }
  TextRequest junk({TextData("soon")});
  EXPECT_TRUE(junk.fso().GetSystemTime().IsEmpty());
  EXPECT_EQ(junk.fso().ErrCode(), 13);
  EXPECT_EQ(junk.fso().ErrDescription(), "Type mismatch");
}

TEST(RCFSORequests, GetPathWithKeyReadsTheAnnouncedRawText) {
  LogCapture log;
  const Bytes path = TextData("C:\\Qel\\Program");
  TextRequest request({SizeData(static_cast<int32_t>(path.size()))}, path);
  EXPECT_EQ(request.fso().GetPathWithKey("QelProgram"), "C:\\Qel\\Program");
  EXPECT_EQ(request.fso().ErrCode(), 0);
  const Bytes block = request.Block();
  EXPECT_EQ(block[0], 13);
  EXPECT_EQ(UnicodeArguments(block), std::vector<std::string>{"QelProgram"});
  const std::string h = Handle(request.fso());
  EXPECT_TRUE(log.Has(".log", {"I", "RSFSO", "GetPathWithKey", h + "**GetPathWithKey QelProgram"}));
  EXPECT_TRUE(log.Has(".log", {"I", "RSFSO", "GetPathWithKey", h + "**Path =C:\\Qel\\Program"}));
}

TEST(RCFSORequests, GetPathWithKeyWithNothingAnnouncedReadsNoRawBytes) {
  for (int32_t n : {0, -5}) {
    TextRequest request({SizeData(n)});
    EXPECT_EQ(request.fso().GetPathWithKey("k"), "");
    EXPECT_EQ(request.fso().ErrCode(), 0);
    // The session is still in step: nothing was left unread.
    EXPECT_EQ(request.Block()[0], 13);
  }
}

TEST(RCFSORequests, RawTextCutShortByTheServerFails) {
  LogCapture log;
  ScriptedPeer peer;
  RCFSO fso;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(SizeData(100))).Send({'C', 0, ':', 0}).Stall();
  ASSERT_TRUE(LogIn(fso, peer));
  fso.set_timeout(100);
  EXPECT_EQ(fso.GetPathWithKey("k"), "");
  EXPECT_EQ(fso.ErrCode(), 10060);
  EXPECT_EQ(fso.ErrDescription(), DescribeError(10060));
  EXPECT_TRUE(
      log.Has(".log", {"I", "RSFSO", "GetPathWithKey", Handle(fso) + "**Get Data content fail"}));
  fso.Disconnect();
}

// Announced raw text is counted, not judged: zero characters are text, while a server that
// closes before sending any of it has sent nothing.
TEST(RCFSORequests, RawTextOfZerosIsTextAndNothingAtACloseIsAFailure) {
  for (const bool send_text : {true, false}) {
    ScriptedPeer peer;
    RCFSO fso;
    ExpectLogin(peer, true);
    ExpectRequest(peer).ReplyWith(Answer(SizeData(4)));
    if (send_text) peer.Send(Bytes(4, 0));
    peer.Close();
    ASSERT_TRUE(LogIn(fso, peer));
    EXPECT_EQ(fso.GetPathWithKey("k"), send_text ? std::string(2, '\0') : "");
    EXPECT_EQ(fso.ErrCode(), send_text ? 0 : 10054);
    fso.Disconnect();
  }
}

TEST(RCFSORequests, GetPrintQChecksTheAnnouncedSize) {
  LogCapture log;
  TextRequest negative({SizeData(-1)});
  EXPECT_EQ(negative.fso().GetPrintQ(), "");
  EXPECT_EQ(negative.fso().ErrCode(), 8004);
  EXPECT_EQ(negative.fso().ErrDescription(), "Invalid data size");
  EXPECT_TRUE(
      log.Has(".log", {"I", "RSFSO", "GetPrintQ", Handle(negative.fso()) + "**Data size =-1"}));
  const Bytes block = negative.Block();
  EXPECT_EQ(Bytes(block.begin(), block.begin() + 6), (Bytes{14, 1, 0, 0, 0, 0}));

  TextRequest empty({SizeData(0)});
  EXPECT_EQ(empty.fso().GetPrintQ(), "");
  EXPECT_EQ(empty.fso().ErrCode(), 0);

  const Bytes queues = TextData("HP1,HP2");
  TextRequest some({SizeData(static_cast<int32_t>(queues.size()))}, queues);
  EXPECT_EQ(some.fso().GetPrintQ(), "HP1,HP2");
}

TEST(RCFSORequests, HugeAnnouncedSizeIsReadAsItArrives) {
  // 2 GB announced, 6 bytes sent, then the server closes: the read ends with the close.
  ScriptedPeer peer;
  RCFSO fso;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(SizeData(0x7FFFFFFF))).Send(TextData("abc")).Close();
  ASSERT_TRUE(LogIn(fso, peer));
  EXPECT_EQ(fso.GetPrintQ(), "");
  EXPECT_EQ(fso.ErrCode(), 10054);
  EXPECT_TRUE(peer.Finish()) << peer.Failure();
}

}  // namespace
}  // namespace pelmora::admin
