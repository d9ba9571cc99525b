// RCFSO's Upload and Download against a scripted service: the exact bytes of the size message,
// the go reply and the raw pieces (the stale tail of the last upload piece included), the file
// times, failures part way and every log line.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "pelmora/admin/internal/local_file.h"
#include "pelmora/admin/internal/rcfso_test_access.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora::admin {
namespace {

using internal::LocalFile;
using internal::RCFSOTestAccess;
using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::LogCapture;
using pelmora::testing::LogIn;
using pelmora::testing::LogLine;
using pelmora::testing::ReadFileBytes;
using pelmora::testing::ResultData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::UnicodeRequestBlock;

constexpr uint64_t kCreation = 128000000001234567;
constexpr uint64_t kAccess = 129000000007654321;
constexpr uint64_t kWrite = 130000000001234567;  // .1234567 s: set as .123 s

std::string Handle(const RCFSO& fso) { return RCFSOTestAccess::Handle(fso); }

Bytes Pattern(size_t n) {
  Bytes bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
  return bytes;
}

void WriteFile(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

// The data of a framed packet the client sent.
Bytes DataOf(const Bytes& packet, size_t size) {
  return Bytes(packet.begin() + kHeaderSize, packet.begin() + kHeaderSize + size);
}

// What a reused 1500-byte send buffer puts on the wire for `content`.
Bytes WirePieces(const Bytes& content) {
  Bytes wire;
  Bytes buffer(kPacketSize, 0);
  for (size_t at = 0; at < content.size(); at += kPacketSize) {
    const size_t n = std::min(kPacketSize, content.size() - at);
    std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(at), n, buffer.begin());
    wire.insert(wire.end(), buffer.begin(), buffer.end());
  }
  return wire;
}

class RCFSOTransfer : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return folder_.Path() + "/" + name; }
  LogCapture log_;
  pelmora::internal::ScratchFolder folder_;
  ScriptedPeer peer_;
  RCFSO fso_;
};

class UploadSizes : public RCFSOTransfer, public ::testing::WithParamInterface<size_t> {};

TEST_P(UploadSizes, SendsTheSizeMessageAndWholePieces) {
  const Bytes content = Pattern(GetParam());
  const std::string local = Path("up.bin");
  WriteFile(local, content);
  const size_t pieces = (content.size() + kPacketSize - 1) / kPacketSize;
  ExpectLogin(peer_, true);
  ExpectRequest(peer_).Receive(kPacketSize).ReplyWith(Answer(BuildGoReply(true)));
  if (pieces > 0) peer_.Receive(pieces * kPacketSize);
  peer_.ReplyWith(Answer(ResultData(true)));
  // Reading the content may move the access time: the times are those from before.
  const auto times = LocalFile::OpenForReading(local).Times();
  ASSERT_TRUE(times);
  ASSERT_TRUE(LogIn(fso_, peer_));
  ASSERT_TRUE(fso_.Upload(local, "D:\\in\\up.bin")) << fso_.ErrDescription();
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();

  EXPECT_EQ(peer_.Received(2), UnicodeRequestBlock(RequestCode::kUpload, "D:\\in\\up.bin"));
  TransferHeader header;
  header.size = static_cast<int32_t>(content.size());
  header.creation_time = times->creation;
  header.last_access_time = times->last_access;
  header.last_write_time = times->last_write;
  EXPECT_EQ(DataOf(peer_.Received(3), kTransferHeaderSize), BuildTransferHeader(header));
  if (pieces > 0) {
    EXPECT_EQ(peer_.Received(4), WirePieces(content));
  }
  const std::string n = std::to_string(content.size());
  const std::vector<LogLine> lines = log_.Lines(".log");
  ASSERT_EQ(lines.size(), 7u);  // two of Connect, five of Upload
  const std::string file_handle = lines[3].text.substr(Handle(fso_).size() + 9);
  const std::vector<LogLine> expected = {
      {"I", "RFSO", "Upload", "** Upload " + local + " =>D:\\in\\up.bin **"},
      {"I", "RFSO", "Upload", Handle(fso_) + "handle = " + file_handle},
      {"I", "RFSO", "Upload", Handle(fso_) + "Upload file size = " + n},
      {"I", "RFSO", "Upload", n + " bytes sent" + n},
      {"I", "RFSO", "Upload", "close handle " + file_handle},
  };
  EXPECT_EQ(std::vector<LogLine>(lines.begin() + 2, lines.end()), expected);
  EXPECT_GE(std::stoi(file_handle), 0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, UploadSizes,
                         ::testing::Values(0, 1, 1499, 1500, 1501, 3000, 3001, 66001, 100000));

TEST_F(RCFSOTransfer, UploadsLastShortPieceCarriesThePreviousPiecesTail) {
  // 3001 bytes: pieces 1 and 2 whole, piece 3 is byte 3000 then bytes 1501..2999 of piece 2.
  const Bytes content = Pattern(3001);
  const Bytes wire = WirePieces(content);
  ASSERT_EQ(wire.size(), 4500u);
  EXPECT_EQ(wire[3000], content[3000]);
  EXPECT_TRUE(std::equal(wire.begin() + 3001, wire.end(), content.begin() + 1501));
  const Bytes one = WirePieces(Pattern(1));
  EXPECT_TRUE(std::all_of(one.begin() + 1, one.end(), [](uint8_t b) { return b == 0; }));
}

TEST_F(RCFSOTransfer, UploadRefusals) {
  RCFSO fso;
  std::string raised;
  struct Sink : RCFSOEvents {
    std::string* out;
    void FSOError(std::string& message) override { *out = message; }
  } sink;
  sink.out = &raised;
  fso.AddEventSink(&sink);
  EXPECT_FALSE(fso.Upload(Path("x"), "   "));
  EXPECT_EQ(fso.ErrCode(), 8116);
  EXPECT_EQ(fso.ErrDescription(), "Empty remote file name");
  EXPECT_TRUE(log_.Has(".log", {"I", "RFSO", "Upload", "Empty remote filename"}));

  const std::string missing = Path("missing.bin");
  EXPECT_FALSE(fso.Upload(missing, "D:\\a"));
  EXPECT_EQ(fso.ErrCode(), 8118);
  EXPECT_EQ(fso.ErrDescription(), "File " + missing + " does not exist !");
  EXPECT_EQ(raised, fso.ErrDescription());

  WriteFile(Path("here"), Pattern(3));
  EXPECT_FALSE(fso.Upload(Path("here"), "D:\\a"));
  EXPECT_EQ(fso.ErrCode(), 8117);
  EXPECT_TRUE(log_.Has(".log", {"I", "RFSO", "Upload", Handle(fso) + "send request fail "}));
  fso.RemoveEventSink(&sink);
}

TEST_F(RCFSOTransfer, UploadStopsWhenTheServerRefusesTheFile) {
  WriteFile(Path("up"), Pattern(10));
  ExpectLogin(peer_, true);
  ExpectRequest(peer_).Receive(kPacketSize).ReplyWith(Answer(BuildGoReply(false))).Stall();
  ASSERT_TRUE(LogIn(fso_, peer_));
  EXPECT_FALSE(fso_.Upload(Path("up"), "D:\\a"));
  EXPECT_EQ(fso_.ErrCode(), 8118);
  EXPECT_EQ(fso_.ErrDescription(), "server create file fail");
  EXPECT_TRUE(log_.Has(".log", {"I", "RFSO", "Upload", Handle(fso_) + "Server create file fail"}));
  fso_.Disconnect();
}

TEST_F(RCFSOTransfer, UploadReportsTheServersResult) {
  WriteFile(Path("up"), Pattern(10));
  ExpectLogin(peer_, true);
  ExpectRequest(peer_).Receive(kPacketSize).ReplyWith(Answer(BuildGoReply(true)));
  peer_.Receive(kPacketSize).ReplyWith(Answer(ResultData(false, 112, "disk full")));
  ASSERT_TRUE(LogIn(fso_, peer_));
  EXPECT_FALSE(fso_.Upload(Path("up"), "D:\\a"));
  EXPECT_EQ(fso_.ErrCode(), 112);
  EXPECT_EQ(fso_.ErrDescription(), "disk full");
  EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
}

// Scripts a download: the request, the size message for `content` (or `size`), the go reply,
// then `sent` (all of `content` unless given).
void ScriptDownload(ScriptedPeer& peer, int32_t size, const Bytes& sent) {
  TransferHeader header{size, kCreation, kAccess, kWrite};
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(BuildTransferHeader(header))).Receive(kPacketSize);
  if (!sent.empty()) peer.Send(sent);
}

class DownloadSizes : public RCFSOTransfer, public ::testing::WithParamInterface<size_t> {};

TEST_P(DownloadSizes, WritesTheContentAndSetsTheTimes) {
  const Bytes content = Pattern(GetParam());
  const std::string local = Path("down.bin");
  WriteFile(local, Pattern(5000));  // replaced, not overwritten in place
  ScriptDownload(peer_, static_cast<int32_t>(content.size()), content);
  ASSERT_TRUE(LogIn(fso_, peer_));
  ASSERT_TRUE(fso_.Download(local, "D:\\out\\f.bin")) << fso_.ErrDescription();
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  EXPECT_EQ(peer_.Received(2), UnicodeRequestBlock(RequestCode::kDownload, "D:\\out\\f.bin"));
  EXPECT_EQ(DataOf(peer_.Received(3), 4), BuildGoReply(true));
  const auto times = LocalFile::OpenForReading(local).Times();  // before a read moves them
  ASSERT_TRUE(times);
  EXPECT_EQ(times->last_access, kAccess);
  EXPECT_EQ(times->last_write, kWrite - kWrite % 10000);
  EXPECT_EQ(ReadFileBytes(local), content);
  EXPECT_TRUE(
      log_.Has(".log", {"I", "RFSO", "Download",
                        Handle(fso_) + "Download file size = " + std::to_string(content.size())}));
  EXPECT_TRUE(
      log_.Has(".log", {"I", "RFSO", "Download", "** Download " + local + " =>D:\\out\\f.bin **"}));
}

INSTANTIATE_TEST_SUITE_P(Sizes, DownloadSizes,
                         ::testing::Values(0, 1, 1500, 1501, 3000, 10 * 1000 * 1000));

TEST_F(RCFSOTransfer, DownloadOfAFileTheServerCannotOpenSendsNoReply) {
  TransferHeader header{-1, 0, 0, 0};
  ExpectLogin(peer_, true);
  ExpectRequest(peer_).ReplyWith(Answer(BuildTransferHeader(header))).ReceiveUntilClosed();
  ASSERT_TRUE(LogIn(fso_, peer_));
  EXPECT_FALSE(fso_.Download(Path("never"), "D:\\locked"));
  EXPECT_EQ(fso_.ErrCode(), 8004);
  EXPECT_EQ(fso_.ErrDescription(), "Cannot open remote file");
  fso_.Disconnect();
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  EXPECT_TRUE(peer_.Received(3).empty());
  EXPECT_FALSE(internal::IsRegularFile(Path("never")));
}

TEST_F(RCFSOTransfer, DownloadIntoAMissingFolderRefusesTheFile) {
  ScriptDownload(peer_, 10, {});
  ASSERT_TRUE(LogIn(fso_, peer_));
  const std::string local = Path("no/such/folder/f");
  EXPECT_FALSE(fso_.Download(local, "D:\\f"));
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  EXPECT_EQ(DataOf(peer_.Received(3), 4), BuildGoReply(false));
  EXPECT_EQ(fso_.ErrCode(), 8118);
  EXPECT_EQ(fso_.ErrDescription(), "Cannot create file " + local);
  EXPECT_TRUE(log_.Has(".log", {"I", "RFSO", "Download", Handle(fso_) + "hFile =-1"}));
  EXPECT_TRUE(
      log_.Has(".log", {"I", "RFSO", "Download", Handle(fso_) + "Cannot create file " + local}));
}

TEST_F(RCFSOTransfer, DownloadCutShortKeepsThePiecesReceived) {
  for (bool close : {false, true}) {
    ScriptedPeer peer;
    RCFSO fso;
    const Bytes content = Pattern(3000);
    ScriptDownload(peer, 3000, Bytes(content.begin(), content.begin() + 2000));
    if (close) {
      peer.Close();
    } else {
      peer.Stall();
    }
    ASSERT_TRUE(LogIn(fso, peer));
    fso.set_timeout(100);
    const std::string local = Path(close ? "closed" : "stalled");
    EXPECT_FALSE(fso.Download(local, "D:\\f"));
    EXPECT_EQ(fso.ErrCode(), close ? 10054 : 10060);
    EXPECT_EQ(fso.ErrDescription(), DescribeError(fso.ErrCode()));
    EXPECT_EQ(ReadFileBytes(local), Bytes(content.begin(), content.begin() + 1500));
    EXPECT_TRUE(log_.Has(
        ".log", {"I", "RFSO", "Download", Handle(fso) + "Get file content fail ,remain = 1500"}));
    fso.Disconnect();
  }
}

// A server that closes right after the last byte must not cost the file its zero bytes: zeros
// are data, and only a read that brings nothing is a close. The close races the last read, so
// each case is repeated.
TEST_F(RCFSOTransfer, DownloadKeepsAZeroFilledTailWhenTheServerClosesRightAfterIt) {
  Bytes tailed = Pattern(1500);
  tailed.resize(3000, 0);
  const Bytes contents[] = {Bytes(1000, 0), Bytes(1500, 0), tailed};
  for (const Bytes& content : contents) {
    for (int run = 0; run < 12; ++run) {
      ScriptedPeer peer;
      RCFSO fso;
      ScriptDownload(peer, static_cast<int32_t>(content.size()), content);
      peer.Close();
      ASSERT_TRUE(LogIn(fso, peer));
      const std::string local = Path("zeros");
      EXPECT_TRUE(fso.Download(local, "D:\\zeros")) << content.size() << " run " << run;
      EXPECT_EQ(fso.ErrCode(), 0);
      EXPECT_TRUE(ReadFileBytes(local) == content) << content.size() << " run " << run;
      fso.Disconnect();
    }
  }
}

TEST_F(RCFSOTransfer, DownloadWithoutASizeMessageSaysNoAndKeepsTheReceiveError) {
  ExpectLogin(peer_, true);
  ExpectRequest(peer_).Receive(kPacketSize);
  ASSERT_TRUE(LogIn(fso_, peer_));
  fso_.set_timeout(100);
  EXPECT_FALSE(fso_.Download(Path("f"), "D:\\f"));
  EXPECT_EQ(fso_.ErrCode(), 10060);
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  EXPECT_EQ(DataOf(peer_.Received(3), 4), BuildGoReply(false));
  EXPECT_TRUE(log_.Has(".log", {"I", "RFSO", "Download", Handle(fso_) + "Recv Data Size fail"}));
  EXPECT_TRUE(log_.Has(
      ".log", {"I", "RFSO", "Download", Handle(fso_) + "errdesc = " + DescribeError(10060)}));
}

TEST_F(RCFSOTransfer, DownloadRefusesBlankNamesBeforeSending) {
  RCFSO fso;
  EXPECT_FALSE(fso.Download(" ", "D:\\f"));
  EXPECT_EQ(fso.ErrCode(), 8116);
  EXPECT_EQ(fso.ErrDescription(), "Empty local file name");
  EXPECT_FALSE(fso.Download(Path("f"), ""));
  EXPECT_EQ(fso.ErrDescription(), "Empty remote file name");
  EXPECT_TRUE(log_.Has(".log", {"I", "RFSO", "Download", "Empty local file name"}));
  EXPECT_FALSE(fso.Download(Path("f"), "D:\\f"));
  EXPECT_EQ(fso.ErrCode(), 8117);
  EXPECT_TRUE(log_.Has(".log", {"I", "RFSO", "Download", Handle(fso) + "Send request fail"}));
}

}  // namespace
}  // namespace pelmora::admin
