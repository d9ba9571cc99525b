// A large listing that its client does not read costs the service a bounded amount of memory:
// the reply goes out a piece at a time instead of being built whole first.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

#include "pelmora/admin/wire_replies.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RequestCode;

// The resident memory of process `pid` in KiB (VmRSS), -1 when unknown.
long ResidentKib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

TEST(ServiceListingMemory, UnreadListingsDoNotPinTheWholeReply) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer's allocator holds freed memory back";
#endif
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the thread sanitizer's shadow memory grows with all the service touches";
#endif
  constexpr int kFiles = 12000;
  constexpr int kSessions = 4;
  ServiceProcess service;
  ASSERT_TRUE(service.Start());
  std::string folder = service.Drive('C') + "/big";
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  std::string padding(200, 'n');
  for (int i = 0; i < kFiles; ++i) {
    std::ofstream(folder + "/" + padding + std::to_string(i));
  }
  long before = ResidentKib(service.pid());
  RawClient clients[kSessions];
  for (RawClient& client : clients) {
    ASSERT_TRUE(client.Connect(service.port()));
    auto login = client.Login("operator", kOperatorPassword);
    ASSERT_TRUE(login && login->success);
    ASSERT_TRUE(client.RequestPath(RequestCode::kGetFolderFiles, "C:\\big"));
    std::optional<Bytes> size = client.ReadFramed();  // then reads no more
    ASSERT_TRUE(size);
    // About 1 KiB a record: each session's whole reply would be some 12 MiB.
    EXPECT_GT(pelmora::admin::ParseSizeMessage(*size).value_or(0), 10 << 20);
  }
  long after = ResidentKib(service.pid());
  ASSERT_GT(before, 0);
  // The names of each session (some 2.5 MiB) and a piece of records may stay; whole replies
  // (about 48 MiB together, with their records as much again) may not.
  EXPECT_LT(after - before, 24 * 1024) << before << " KiB before, " << after << " KiB after";
}

TEST(ServiceListingMemory, APieceByPieceListingReadsBackWhole) {
  ServiceProcess service;
  ASSERT_TRUE(service.Start());
  std::string folder = service.Drive('C') + "/some";
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  for (int i = 0; i < 700; ++i) std::ofstream(folder + "/f" + std::to_string(1000 + i)) << i;
  ::symlink("f1000", (folder + "/link").c_str());
  RawClient client;
  ASSERT_TRUE(client.Connect(service.port()));
  ASSERT_TRUE(client.Login("operator", kOperatorPassword)->success);
  ASSERT_TRUE(client.RequestPath(RequestCode::kGetFolderFiles, "C:\\some"));
  std::optional<Bytes> size = client.ReadFramed();
  ASSERT_TRUE(size);
  int32_t total = pelmora::admin::ParseSizeMessage(*size).value_or(-1);
  ASSERT_GT(total, 0);
  std::optional<Bytes> data = client.Read(static_cast<std::size_t>(total));
  ASSERT_TRUE(data);
  auto records = pelmora::admin::ParseListing(*data);
  ASSERT_TRUE(records);
  ASSERT_EQ(records->size(), 701u);
  EXPECT_EQ(records->front().name, "f1000");
  EXPECT_EQ(records->back().name, "link");
  EXPECT_EQ(records->back().full_path, "C:\\some\\link");
  // The session is in step for the next request.
  ASSERT_TRUE(client.RequestPath(RequestCode::kFolderExists, "C:\\some"));
  auto reply = client.ReadResult();
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->success);
}

}  // namespace
}  // namespace pelmorad::testing
