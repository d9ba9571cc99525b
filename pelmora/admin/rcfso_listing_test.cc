// RCFSO's GetFolderFiles and GetFileInfo against a scripted service: the request bytes, the size
// message and raw data that follow, refusals, lying lengths and the log lines.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelmora/admin/internal/byte_order.h"
#include "pelmora/admin/internal/rcfso_test_access.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
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
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;
using pelmora::testing::UnicodeRequestBlock;

std::string Handle(const RCFSO& fso) { return RCFSOTestAccess::Handle(fso); }

FileInfoRecord Record(std::string name) {
  FileInfoRecord record;
  record.attributes = 32;
  record.size = 5;
  record.name = name;
  record.full_path = "C:\\Data\\" + name;
  record.parent_path = "C:\\Data";
  return record;
}

// A logged-in client whose one request is answered with a size message carrying `announced`
// and then `raw` bytes; the peer then keeps the connection open, or closes it when `close`.
class ListingExchange {
 public:
  ListingExchange(int32_t announced, Bytes raw, bool close = false) {
    ExpectLogin(peer_, true);
    ExpectRequest(peer_).ReplyWith(Answer(SizeData(announced)));
    if (!raw.empty()) peer_.Send(std::move(raw));
    if (close) {
      peer_.Close();
    } else {
      peer_.Stall();
    }
    EXPECT_TRUE(LogIn(fso_, peer_));
    fso_.set_timeout(2000);
  }
  ~ListingExchange() { fso_.Disconnect(); }
  RCFSO& fso() { return fso_; }
  Bytes Block() { return peer_.Received(2); }

 private:
  ScriptedPeer peer_;
  RCFSO fso_;
};

TEST(RCFSOListing, GetFolderFilesReadsEntriesInTheServersOrder) {
  LogCapture log;
  Bytes listing = BuildListing(std::vector<FileInfoRecord>{Record("a.txt")});
  internal::AppendInt32(listing, 0);  // an empty entry is skipped, the next one still read
  const Bytes more = BuildListing(std::vector<FileInfoRecord>{Record("b.txt")});
  listing.insert(listing.end(), more.begin(), more.end());
  ListingExchange exchange(static_cast<int32_t>(listing.size()), listing);
  const RCFileInfoCollection files = exchange.fso().GetFolderFiles("C:\\Data");
  ASSERT_EQ(files.Count(), 2);
  EXPECT_EQ(files.Item(1)->FileName(), "a.txt");
  EXPECT_EQ(files.Item(2)->FullPathName(), "C:\\Data\\b.txt");
  EXPECT_EQ(exchange.fso().ErrCode(), 0);
  EXPECT_EQ(exchange.Block(), UnicodeRequestBlock(RequestCode::kGetFolderFiles, "C:\\Data"));
  EXPECT_TRUE(log.Has(".log", {"I", "RSFSO", "GetFolderFiles",
                               Handle(exchange.fso()) + "** GetFolderFile C:\\Data"}));
}

TEST(RCFSOListing, GetFolderFilesReadsTenThousandEntries) {
  std::vector<FileInfoRecord> records;
  for (int i = 0; i < 10000; ++i) records.push_back(Record("f" + std::to_string(i)));
  const Bytes listing = BuildListing(records);
  ListingExchange exchange(static_cast<int32_t>(listing.size()), listing);
  const RCFileInfoCollection files = exchange.fso().GetFolderFiles("C:\\Data");
  ASSERT_EQ(files.Count(), 10000);
  EXPECT_EQ(files.Item(10000)->FileName(), "f9999");
}

TEST(RCFSOListing, GetFolderFilesOutcomesOfTheSizeMessage) {
  ListingExchange empty(0, {});
  EXPECT_EQ(empty.fso().GetFolderFiles("C:\\Empty").Count(), 0);
  EXPECT_EQ(empty.fso().ErrCode(), 0);

  ListingExchange refused(-1, {});
  EXPECT_EQ(refused.fso().GetFolderFiles("C:\\Nope").Count(), 0);
  EXPECT_EQ(refused.fso().ErrCode(), 8118);
  EXPECT_EQ(refused.fso().ErrDescription(), "Cannot open remote folder");
}

TEST(RCFSOListing, GetFolderFilesRefusesALyingListingAfterReadingIt) {
  Bytes record = BuildFileInfoRecord(Record("x"));
  internal::PutInt32(record, 32, 4000);  // the name runs past the record
  Bytes listing;
  internal::AppendInt32(listing, static_cast<int32_t>(record.size()));
  listing.insert(listing.end(), record.begin(), record.end());
  const Bytes good = BuildListing(std::vector<FileInfoRecord>{Record("y")});
  listing.insert(listing.end(), good.begin(), good.end());
  ListingExchange exchange(static_cast<int32_t>(listing.size()), listing);
  EXPECT_EQ(exchange.fso().GetFolderFiles("C:\\Data").Count(), 0);
  EXPECT_EQ(exchange.fso().ErrCode(), 8004);
  EXPECT_EQ(exchange.fso().ErrDescription(), "Invalid Data Size");
}

TEST(RCFSOListing, GetFolderFilesCutShortGivesTheSocketError) {
  LogCapture log;
  const Bytes listing = BuildListing(std::vector<FileInfoRecord>{Record("a"), Record("b")});
  const Bytes half(listing.begin(), listing.begin() + 60);
  ListingExchange closed(0x7FFFFFFF, half, true);
  EXPECT_EQ(closed.fso().GetFolderFiles("C:\\Data").Count(), 0);
  EXPECT_EQ(closed.fso().ErrCode(), 10054);
  EXPECT_EQ(closed.fso().ErrDescription(), DescribeError(10054));
  EXPECT_TRUE(log.Has(".log", {"I", "RSFSO", "GetFolderFiles",
                               Handle(closed.fso()) + "**Get data info content fail"}));

  ListingExchange stalled(static_cast<int32_t>(listing.size()), half);
  stalled.fso().set_timeout(100);
  EXPECT_EQ(stalled.fso().GetFolderFiles("C:\\Data").Count(), 0);
  EXPECT_EQ(stalled.fso().ErrCode(), 10060);
}

// Empty entries are four zero bytes each; a server closing right after them has sent a whole,
// empty listing. The close races the last read, so the case is repeated.
TEST(RCFSOListing, GetFolderFilesOfEmptyEntriesSurvivesTheServerClosingAfterThem) {
  for (int run = 0; run < 12; ++run) {
    ListingExchange closed(12, Bytes(12, 0), true);
    EXPECT_EQ(closed.fso().GetFolderFiles("C:\\Data").Count(), 0);
    EXPECT_EQ(closed.fso().ErrCode(), 0) << "run " << run;
  }
}

TEST(RCFSOListing, ArgumentsAndConnectionAreCheckedFirst) {
  LogCapture log;
  RCFSO fso;
  EXPECT_EQ(fso.GetFolderFiles("  ").Count(), 0);
  EXPECT_EQ(fso.ErrCode(), 8116);
  EXPECT_EQ(fso.ErrDescription(), "Empty remote folder name");
  RCFileInfo info;
  EXPECT_FALSE(fso.GetFileInfo(" ", info));
  EXPECT_EQ(fso.ErrCode(), 8116);
  EXPECT_EQ(fso.ErrDescription(), "Empty file name");
  EXPECT_EQ(fso.GetFolderFiles("C:\\").Count(), 0);
  EXPECT_EQ(fso.ErrCode(), 8117);
  EXPECT_TRUE(
      log.Has(".log", {"I", "RSFSO", "GetFolderFiles", Handle(fso) + "** send request fail"}));
}

TEST(RCFSOListing, GetFileInfoReadsAPaddedRecord) {
  LogCapture log;
  Bytes record = BuildFileInfoRecord(Record("shop.ini"));
  const auto size = static_cast<int32_t>(record.size());
  record.resize(kPacketSize);
  ListingExchange exchange(size, record);
  RCFileInfo info;
  ASSERT_TRUE(exchange.fso().GetFileInfo("C:\\Data\\shop.ini", info));
  EXPECT_EQ(info.FileName(), "shop.ini");
  EXPECT_EQ(info.FileAttribues(), 32);
  EXPECT_TRUE(log.Has(".log", {"I", "RSFSO", "GetFileInfo",
                               Handle(exchange.fso()) + "** Data size = " + std::to_string(size)}));
}

TEST(RCFSOListing, GetFileInfoDropsATrailingSeparatorExceptAtADriveRoot) {
  const struct {
    const char* given;
    const char* sent;
  } cases[] = {{"C:\\", "C:\\"},
               {"D:/", "D:/"},
               {"C:\\Data\\", "C:\\Data"},
               {"\\\\server\\share\\", "\\\\server\\share"},
               {"\\", "\\"},
               {"C:\\Data", "C:\\Data"}};
  for (const auto& c : cases) {
    ListingExchange exchange(-1, {});
    RCFileInfo info;
    EXPECT_FALSE(exchange.fso().GetFileInfo(c.given, info));
    EXPECT_EQ(exchange.fso().ErrCode(), 8118);
    EXPECT_EQ(exchange.fso().ErrDescription(), "Cannot open remote file");
    EXPECT_EQ(exchange.Block(), UnicodeRequestBlock(RequestCode::kGetFileInfo, c.sent)) << c.given;
  }
}

TEST(RCFSOListing, GetFileInfoFailuresLeaveTheObjectUntouched) {
  LogCapture log;
  RCFileInfo info;
  info.SetFileName("before");
  ListingExchange zero(0, {});
  EXPECT_FALSE(zero.fso().GetFileInfo("C:\\a", info));
  EXPECT_EQ(zero.fso().ErrCode(), 8118);

  Bytes lying = BuildFileInfoRecord(Record("a"));
  internal::PutInt32(lying, 32, 3000);
  lying.resize(kPacketSize);
  ListingExchange malformed(40, lying);
  EXPECT_FALSE(malformed.fso().GetFileInfo("C:\\a", info));
  EXPECT_EQ(malformed.fso().ErrCode(), 8004);

  ListingExchange cut(40, Bytes(100, 1));
  cut.fso().set_timeout(100);
  EXPECT_FALSE(cut.fso().GetFileInfo("C:\\a", info));
  EXPECT_EQ(cut.fso().ErrCode(), 10060);
  EXPECT_TRUE(log.Has(
      ".log", {"I", "RSFSO", "GetFileInfo", Handle(cut.fso()) + "** Get file info data fail"}));
  EXPECT_EQ(info.FileName(), "before");
}

}  // namespace
}  // namespace pelmora::admin
