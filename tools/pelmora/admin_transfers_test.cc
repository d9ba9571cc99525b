// Listings, file information and transfers of `pelmora admin` against a scripted peer, and the
// helpers that name local targets and read a transfer's progress from its descriptor.
#include "tools/pelmora/admin_transfers.h"

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/testing/admin_peer.h"
#include "tools/pelmora/recording_output.h"
#include "tools/pelmora/transfer_watch.h"

namespace pelmora_tool {
namespace {

using pelmora::admin::FileInfoRecord;
using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::ResultData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;
namespace fs = std::filesystem;

constexpr uint64_t kWriteTime = 128930000000000000;  // a FILETIME in 2009

class AdminTransferTest : public ::testing::Test {
 protected:
  // One folder per test process: ctest runs the tests of this fixture in parallel processes.
  AdminTransferTest()
      : dir_(fs::path(::testing::TempDir()) /
             ("pelmora-transfer-test-" + std::to_string(::getpid()))) {
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    options_.host = "127.0.0.1";
    options_.port = peer_.Port();
    ExpectLogin(peer_, true);
  }
  ~AdminTransferTest() override { fs::remove_all(dir_); }

  int Run(const HostRequest& request) {
    peer_.Start();
    int status = RunOnHost({"127.0.0.1", 0}, options_, secrets_, output_, request);
    EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
    return status;
  }
  std::string RequestArgument(size_t chunk) {
    auto block = pelmora::admin::ParseRequestBlock(peer_.Received(chunk));
    return block ? pelmora::admin::DecodeUnicodeArgument(block->args.at(0)) : "";
  }

  // The replies to the file information and the download of C:\data\app.ini holding `content`.
  void ServeFileInfo(const std::string& content);
  void ServeDownload(const std::string& content) {
    pelmora::admin::TransferHeader header{.size = static_cast<int32_t>(content.size()),
                                          .last_write_time = kWriteTime};
    ExpectRequest(peer_).ReplyWith(Answer(pelmora::admin::BuildTransferHeader(header)));
    peer_.Receive(pelmora::admin::kPacketSize).Send(Bytes(content.begin(), content.end()));
  }

  fs::path dir_;
  ScriptedPeer peer_;
  AdminOptions options_;
  Credentials secrets_;
  RecordingOutput output_;
};

FileInfoRecord Entry(std::string name, int32_t attributes, int32_t size) {
  return {.attributes = attributes,
          .size = size,
          .last_write_time = kWriteTime,
          .name = name,
          .full_path = "C:\\data\\" + name,
          .parent_path = "C:\\data"};
}

void AdminTransferTest::ServeFileInfo(const std::string& content) {
  Bytes record = pelmora::admin::BuildFileInfoRecord(
      Entry("app.ini", 0x20, static_cast<int32_t>(content.size())));
  ExpectRequest(peer_).ReplyWith(Answer(SizeData(static_cast<int32_t>(record.size()))));
  record.resize(pelmora::admin::kPacketSize);
  peer_.Send(record);
}

TEST_F(AdminTransferTest, LongListingShowsAttributesSizeTimeAndName) {
  std::vector<FileInfoRecord> entries = {Entry("logs", 0x10, 0), Entry("app.ini", 0x21, 1234)};
  Bytes listing = pelmora::admin::BuildListing(entries);
  ExpectRequest(peer_)
      .ReplyWith(Answer(SizeData(static_cast<int32_t>(listing.size()))))
      .Send(listing);
  EXPECT_EQ(Run([](HostSession& s) { return ListFolder(s, "C:\\data", true); }), kExitOk);
  std::string when = pelmora::admin::FileTimeToDate(kWriteTime).Format("yyyy-mm-dd hh:nn:ss");
  EXPECT_EQ(output_.Text(), "d----           0 " + when + " logs\n-r--a        1234 " + when +
                              " app.ini\n");
  EXPECT_EQ(RequestArgument(2), "C:\\data");
}

TEST_F(AdminTransferTest, ListingAFolderTheServerCannotOpenFailsAndSaysWhy) {
  ExpectRequest(peer_).ReplyWith(Answer(SizeData(-1)));
  // Then the questions behind the cause: the drive is there, the folder is not, nor a file.
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(true)));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 3, "The system cannot find the path specified.")));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 2, "The system cannot find the file specified.")));
  EXPECT_EQ(Run([](HostSession& s) { return ListFolder(s, "C:\\none", false); }), kExitFailed);
  EXPECT_THAT(output_.errors, ::testing::ElementsAre(
                                  "pelmora: srv: 8118 Cannot open remote folder (C:\\none: not there)"));
  EXPECT_EQ(RequestArgument(4), "C:\\");
  EXPECT_EQ(RequestArgument(6), "C:\\none");
}

TEST_F(AdminTransferTest, NoCauseIsGuessedWhenTheServiceStopsAnswering) {
  ExpectRequest(peer_).ReplyWith(Answer(SizeData(-1)));
  peer_.Close();
  EXPECT_EQ(Run([](HostSession& s) { return ListFolder(s, "C:\\none", false); }), kExitFailed);
  EXPECT_THAT(output_.errors, ::testing::ElementsAre("pelmora: srv: 8118 Cannot open remote folder"));
}

TEST_F(AdminTransferTest, GetWritesTheServerBytesUnderTheRemoteName) {
  const std::string content = "hello, file";
  // The file's information first (its size checks the local writes), then the download.
  ServeFileInfo(content);
  ServeDownload(content);
  // A service without the file mode requests refuses the hello: the file keeps a new file's mode
  // and nothing is said.
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 1, "Incorrect function.")));
  std::string folder = dir_.string() + "/";
  EXPECT_EQ(Run([&](HostSession& s) { return Get(s, "C:\\data\\app.ini", folder); }), kExitOk);
  std::ifstream file(dir_ / "app.ini");
  std::stringstream got;
  got << file.rdbuf();
  EXPECT_EQ(got.str(), content);
  EXPECT_EQ(RequestArgument(4), "C:\\data\\app.ini");
  EXPECT_EQ(std::vector<fs::path>(fs::directory_iterator(dir_), {}),
            std::vector<fs::path>{dir_ / "app.ini"}) << "the part file took the target's name";
  EXPECT_TRUE(output_.errors.empty());
  EXPECT_EQ(fs::status(dir_ / "app.ini").permissions() & fs::perms::owner_exec, fs::perms::none);
}

TEST_F(AdminTransferTest, AServiceWithoutTheReadFromRequestSendsTheWholeFileAgain) {
  const std::string content = "hello, file";
  // A part an earlier get -C kept, written after the remote file.
  std::ofstream(dir_ / ".app.ini.pelmora-part") << "hel";
  ServeFileInfo(content);
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(true, 2)));  // the hello: version 2
  ServeDownload(content);
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(true, 0644)));  // get mode
  EXPECT_EQ(Run([&](HostSession& s) { return Get(s, "C:\\data\\app.ini", dir_.string() + "/", true); }),
            kExitOk);
  EXPECT_EQ(peer_.Received(6).at(0), 1) << "the plain download, from the first byte";
  std::ifstream file(dir_ / "app.ini");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
  EXPECT_FALSE(fs::exists(dir_ / ".app.ini.pelmora-part"));
  EXPECT_TRUE(output_.errors.empty());
}

TEST_F(AdminTransferTest, PutIntoAFolderKeepsTheLocalName) {
  fs::path local = dir_ / "report.txt";
  std::ofstream(local) << "twelve bytes";
  ExpectRequest(peer_);
  peer_.Receive(pelmora::admin::kPacketSize)  // the size message
      .ReplyWith(Answer(pelmora::admin::BuildGoReply(true)))
      .Receive(1500)
      .ReplyWith(Answer(ResultData(true)));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 1, "Incorrect function.")));
  EXPECT_EQ(Run([&](HostSession& s) { return Put(s, local.string(), "C:\\in\\"); }), kExitOk);
  EXPECT_EQ(RequestArgument(2), "C:\\in\\report.txt");
  Bytes piece = peer_.Received(4);
  EXPECT_EQ(std::string(piece.begin(), piece.begin() + 12), "twelve bytes");
}

TEST_F(AdminTransferTest, PutRefusedByTheServerReportsIt) {
  fs::path local = dir_ / "x.txt";
  std::ofstream(local) << "x";
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 2, "not a folder")));  // is C:\x.txt one?
  ExpectRequest(peer_);
  peer_.Receive(pelmora::admin::kPacketSize).ReplyWith(Answer(pelmora::admin::BuildGoReply(false)));
  // The drive is there, the target is neither folder nor file: nothing more to say.
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(true)));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 2, "")));
  ExpectRequest(peer_).ReplyWith(Answer(ResultData(false, 2, "")));
  EXPECT_EQ(Run([&](HostSession& s) { return Put(s, local.string(), "C:\\x.txt"); }), kExitFailed);
  EXPECT_THAT(output_.errors, ::testing::ElementsAre("pelmora: srv: 8118 server create file fail"));
}

TEST(AdminTransfers, HumanSizesRoundUpAsLsDoes) {
  const std::pair<int64_t, const char*> kSizes[] = {
      {0, "0"},          {1023, "1023"},     {1024, "1.0K"},       {1025, "1.1K"},
      {1536, "1.5K"},    {10239, "10K"},     {10240, "10K"},       {10241, "11K"},
      {1048575, "1.0M"}, {1048576, "1.0M"},  {1572864, "1.5M"},    {2147483647, "2.0G"}};
  for (auto [size, text] : kSizes) EXPECT_EQ(HumanSize(size), text) << size;
}

TEST(AdminTransfers, AttributeLettersFollowTheBits) {
  EXPECT_EQ(AttributeLetters(0), "-----");
  EXPECT_EQ(AttributeLetters(0x10), "d----");
  EXPECT_EQ(AttributeLetters(0x37), "drhsa");
  EXPECT_EQ(AttributeLetters(0x22), "--h-a");
  EXPECT_EQ(AttributeLetters(0x400), "l----");
  EXPECT_EQ(AttributeLetters(0x430), "l---a") << "a link to a folder";
}

TEST(AdminTransfers, DownloadTargets) {
  std::string here = ::testing::TempDir();
  EXPECT_EQ(DownloadTarget("C:\\logs\\app.log", "", ""), "app.log");
  EXPECT_EQ(DownloadTarget("C:/logs/app.log", "copy.log", ""), "copy.log");
  EXPECT_EQ(DownloadTarget("C:\\logs\\app.log", "out/", ""), "out/app.log");
  EXPECT_EQ(DownloadTarget("C:\\logs\\app.log", here, ""), (fs::path(here) / "app.log").string());
  EXPECT_EQ(DownloadTarget("C:\\logs\\app.log", "", "web01"), "./web01/app.log");
  EXPECT_EQ(DownloadTarget("C:\\logs\\app.log", "all", "db1:8003"), "all/db1:8003/app.log");
}

TEST(AdminTransfers, OpenFileOffsetReadsTheDescriptorPosition) {
  fs::path path = fs::path(::testing::TempDir()) / "pelmora-offset-test";
  int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "0123456789", 10), 10);
  EXPECT_EQ(OpenFileOffset(path.string()), std::optional<uint64_t>(10));
  lseek(fd, 3, SEEK_SET);
  EXPECT_EQ(OpenFileOffset(path.string()), std::optional<uint64_t>(3));
  close(fd);
  EXPECT_EQ(OpenFileOffset(path.string()), std::nullopt);
  fs::remove(path);
}

}  // namespace
}  // namespace pelmora_tool

namespace pelmora_tool {
namespace {

TEST(AdminTransfers, APartIsCompletedOnlyFromAnUnchangedLongerFile) {
  constexpr int64_t kRemoteSecond = 1700000000;
  pelmora::admin::RCFileInfo info;
  info.SetFileSize(1000);
  info.SetLastWriteTime(pelmora::Date::FromUnixTime(kRemoteSecond));
  struct Case {
    const char* what;
    int64_t part_bytes, part_second;
    bool resumes;
  } cases[] = {
      {"stamped with the remote time", 400, kRemoteSecond, true},
      {"written after the remote file", 400, kRemoteSecond + 3600, true},
      {"the remote file written after the part", 400, kRemoteSecond - 1, false},
      {"an empty part", 0, kRemoteSecond, false},
      {"as long as the remote file", 1000, kRemoteSecond, false},
      {"longer than the remote file", 1001, kRemoteSecond, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ResumesFrom(c.part_bytes, c.part_second, info), c.resumes) << c.what;
  }
}

}  // namespace
}  // namespace pelmora_tool
