// Uploads, downloads, file information and listings through the wire units.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/file_info.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RequestCode;
using pelmora::admin::TransferHeader;

// 2021-06-01 12:34:56.789 UTC and 2020-01-02 03:04:05 UTC as FILETIMEs.
constexpr uint64_t kWriteTime = 132670412967890000;
constexpr uint64_t kAccessTime = 132224078450000000;

std::string Pattern(std::size_t size) {
  std::string content(size, '\0');
  for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
  return content;
}

class ServiceTransfers : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    ASSERT_TRUE(client_.Connect(service_.port()));
    auto login = client_.Login("operator", kOperatorPassword);
    ASSERT_TRUE(login && login->success);
  }

  std::string C(const std::string& relative) { return service_.Drive('C') + "/" + relative; }

  ServiceProcess service_;
  RawClient client_;
};

class UploadSizes : public ServiceTransfers, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(UploadSizes, RoundTripKeepsBytesAndTimes) {
  std::string content = Pattern(GetParam());
  TransferHeader times{0, kAccessTime, kAccessTime, kWriteTime};
  auto stored = client_.Upload("C:\\up.bin", content, times);
  ASSERT_TRUE(stored.has_value());
  EXPECT_TRUE(stored->success) << stored->message;
  struct stat info {};
  ASSERT_EQ(::stat(C("up.bin").c_str(), &info), 0);
  EXPECT_EQ(ToFileTime(info.st_mtim), kWriteTime);
  EXPECT_EQ(ToFileTime(info.st_atim), kAccessTime);
  EXPECT_EQ(ReadFile(C("up.bin")), content);
  auto downloaded = client_.Download("C:\\up.bin");
  ASSERT_TRUE(downloaded.has_value());
  EXPECT_EQ(downloaded->first.size, static_cast<int32_t>(content.size()));
  EXPECT_EQ(downloaded->first.last_write_time, kWriteTime);
  EXPECT_EQ(downloaded->second, content);
}

INSTANTIATE_TEST_SUITE_P(Sizes, UploadSizes,
                         ::testing::Values(0, 1, 1499, 1500, 1501, 3000, 96000, 96001,
                                           3 * 1024 * 1024 + 7));

TEST_F(ServiceTransfers, UploadReplacesAnExistingFileWhole) {
  WriteFile(C("same.txt"), "old content that is longer");
  auto stored = client_.Upload("C:\\same.txt", "new", TransferHeader{});
  ASSERT_TRUE(stored && stored->success);
  EXPECT_EQ(ReadFile(C("same.txt")), "new");
}

TEST_F(ServiceTransfers, UploadIntoAMissingFolderIsRefusedWithF) {
  bool refused = false;
  EXPECT_FALSE(client_.Upload("C:\\none\\x.bin", "data", TransferHeader{}, &refused));
  EXPECT_TRUE(refused);
  // The session stays usable.
  ASSERT_TRUE(client_.RequestPath(RequestCode::kFolderExists, "C:\\"));
  auto reply = client_.ReadResult();
  EXPECT_TRUE(reply && reply->success);
}

TEST_F(ServiceTransfers, DownloadOfAMissingFileAnnouncesMinusOne) {
  auto downloaded = client_.Download("C:\\missing.bin");
  ASSERT_TRUE(downloaded.has_value());
  EXPECT_EQ(downloaded->first.size, -1);
  ::mkdir(C("folder").c_str(), 0755);
  downloaded = client_.Download("C:\\folder");
  ASSERT_TRUE(downloaded.has_value());
  EXPECT_EQ(downloaded->first.size, -1);
}

TEST_F(ServiceTransfers, FileInformationIsPaddedToAPacket) {
  WriteFile(C(".hidden.txt"), "12345");
  ASSERT_TRUE(client_.RequestPath(RequestCode::kGetFileInfo, "C:\\.hidden.txt"));
  auto size = client_.ReadFramed();
  ASSERT_TRUE(size.has_value());
  int32_t n = *pelmora::admin::ParseSizeMessage(*size);
  ASSERT_GT(n, 0);
  ASSERT_LT(n, 1500);
  auto record_bytes = client_.Read(1500);
  ASSERT_TRUE(record_bytes.has_value());
  auto record = pelmora::admin::ParseFileInfoRecord(*record_bytes);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->attributes, kAttributeArchive | kAttributeHidden);
  EXPECT_EQ(record->size, 5);
  EXPECT_EQ(record->name, ".hidden.txt");
  EXPECT_EQ(record->full_path, "C:\\.hidden.txt");
  EXPECT_EQ(record->parent_path, "C:\\");
  ASSERT_TRUE(client_.RequestPath(RequestCode::kGetFileInfo, "C:\\missing"));
  size = client_.ReadFramed();
  ASSERT_TRUE(size.has_value());
  EXPECT_EQ(*pelmora::admin::ParseSizeMessage(*size), -1);
}

TEST_F(ServiceTransfers, ListingIsSortedAndMarksFolders) {
  ::mkdir(C("list").c_str(), 0755);
  ::mkdir(C("list/b-folder").c_str(), 0755);
  WriteFile(C("list/a.txt"), "aa");
  WriteFile(C("list/c.txt"), "ccc");
  ASSERT_TRUE(client_.RequestPath(RequestCode::kGetFolderFiles, "C:\\list"));
  auto size = client_.ReadFramed();
  ASSERT_TRUE(size.has_value());
  int32_t n = *pelmora::admin::ParseSizeMessage(*size);
  auto data = client_.Read(static_cast<std::size_t>(n));
  ASSERT_TRUE(data.has_value());
  auto records = pelmora::admin::ParseListing(*data);
  ASSERT_TRUE(records.has_value());
  ASSERT_EQ(records->size(), 3u);
  EXPECT_EQ((*records)[0].name, "a.txt");
  EXPECT_EQ((*records)[0].size, 2);
  EXPECT_EQ((*records)[1].name, "b-folder");
  EXPECT_EQ((*records)[1].attributes & kAttributeDirectory, kAttributeDirectory);
  EXPECT_EQ((*records)[2].full_path, "C:\\list\\c.txt");
  EXPECT_EQ((*records)[2].parent_path, "C:\\list");
  ::mkdir(C("empty").c_str(), 0755);
  ASSERT_TRUE(client_.RequestPath(RequestCode::kGetFolderFiles, "C:\\empty"));
  size = client_.ReadFramed();
  EXPECT_EQ(*pelmora::admin::ParseSizeMessage(*size), 0);
  ASSERT_TRUE(client_.RequestPath(RequestCode::kGetFolderFiles, "C:\\list\\a.txt"));
  size = client_.ReadFramed();
  EXPECT_EQ(*pelmora::admin::ParseSizeMessage(*size), -1);
}

}  // namespace
}  // namespace pelmorad::testing
