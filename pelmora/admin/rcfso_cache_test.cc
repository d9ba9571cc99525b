// RCFSO's server-file cache: the cache path's shape, refusal of paths that leave the cache
// folder, the first fetch, the one-second freshness rule and the failure lines.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "pelmora/admin/internal/local_file.h"
#include "pelmora/admin/internal/rcfso_test_access.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora::admin {
namespace {

using internal::RCFSOTestAccess;
using pelmora::internal::ScopedEnv;
using pelmora::internal::ScratchFolder;
using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::LogCapture;
using pelmora::testing::LogIn;
using pelmora::testing::ReadFileBytes;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;

constexpr uint64_t kTicksPerSecond = 10000000;
constexpr uint64_t kServerWrite = 123456789000000000;  // a whole second
constexpr const char* kRemote = "D:\\Data\\shop.ini";

void PlaceFile(const std::string& path, const Bytes& bytes, uint64_t last_write) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  internal::LocalFile file = internal::LocalFile::CreateAlways(path);
  ASSERT_TRUE(file.WriteAll(bytes));
  ASSERT_TRUE(file.SetTimes(last_write, last_write));
}

// The server's side of a download of `content` last written at `last_write`.
void ScriptDownload(ScriptedPeer& peer, const Bytes& content, uint64_t last_write) {
  const TransferHeader header{static_cast<int32_t>(content.size()), last_write, last_write,
                              last_write};
  ExpectRequest(peer).ReplyWith(Answer(BuildTransferHeader(header))).Receive(kPacketSize);
  peer.Send(content);
}

// The server's side of a file-information request answered with `last_write`.
void ScriptFileInfo(ScriptedPeer& peer, uint64_t last_write) {
  FileInfoRecord record;
  record.last_write_time = last_write;
  record.name = "shop.ini";
  Bytes data = BuildFileInfoRecord(record);
  const auto size = static_cast<int32_t>(data.size());
  data.resize(kPacketSize);
  ExpectRequest(peer).ReplyWith(Answer(SizeData(size))).Send(data);
}

class RCFSOCache : public ::testing::Test {
 protected:
  std::string Cached() const { return fso_.CacheFolder() + "127.0.0.1/D$/Data/shop.ini"; }
  LogCapture log_;
  ScratchFolder temp_;
  ScopedEnv env_{"TMPDIR", temp_.Path()};
  ScriptedPeer peer_;
  RCFSO fso_;  // created after TMPDIR is set: its cache folder is under temp_
};

TEST_F(RCFSOCache, CachePathKeepsTheHostTextAndTheDriveLetter) {
  EXPECT_EQ(fso_.CacheFolder(), temp_.Path() + "/Corvanta/Qelmark/Admin/2.0/RSOCache/");
  WinSock& socket = RCFSOTestAccess::Socket(fso_);
  std::vector<std::string> paths;
  for (const char* host : {"srv01", "srv02", "localhost", "127.0.0.1"}) {
    socket.SetRemoteHost(host);
    EXPECT_EQ(fso_.getRemoteIP(), host);
    paths.push_back(RCFSOTestAccess::CachePath(fso_, kRemote));
  }
  EXPECT_EQ(paths[0], fso_.CacheFolder() + "srv01/D$/Data/shop.ini");
  EXPECT_EQ(paths[1], fso_.CacheFolder() + "srv02/D$/Data/shop.ini");
  EXPECT_EQ(paths[2], fso_.CacheFolder() + "localhost/D$/Data/shop.ini");
  EXPECT_EQ(paths[3], fso_.CacheFolder() + "127.0.0.1/D$/Data/shop.ini");
}

TEST_F(RCFSOCache, RefusesWhatWouldLeaveTheCacheFolder) {
  const struct {
    const char* host;
    const char* remote;
  } cases[] = {{"..", kRemote},       {"a/b", kRemote},
               {"srv", "C:\\..\\x"},  {"srv", "C:\\a\\..\\..\\..\\x"},
               {"srv", "C:/../../x"}, {"srv", "C:\\a\\.."}};
  for (const auto& c : cases) {
    RCFSOTestAccess::Socket(fso_).SetRemoteHost(c.host);
    std::string local = "before";
    EXPECT_FALSE(fso_.getUpdatedServerFileToTempFolder(c.remote, local)) << c.host << c.remote;
    EXPECT_EQ(local, RCFSOTestAccess::CachePath(fso_, c.remote));
    EXPECT_EQ(fso_.ErrCode(), 75);
    EXPECT_EQ(fso_.ErrDescription(),
              std::string("Path/File access error: ") + c.host + " " + c.remote);
  }
  EXPECT_TRUE(std::filesystem::is_empty(temp_.Path()));
  // A dot that does not climb is a name like any other.
  RCFSOTestAccess::Socket(fso_).SetRemoteHost("srv");
  EXPECT_EQ(RCFSOTestAccess::CachePath(fso_, "C:\\a..\\.b"), fso_.CacheFolder() + "srv/C$/a../.b");
}

// The path comes back whatever the outcome; an object never connected (no host text yet) fails
// the fetch with the framing's own 8117.
TEST_F(RCFSOCache, HandsBackTheComputedPathInEveryOutcome) {
  const struct {
    const char* remote;
    const char* path;  // below the cache folder
    int32_t code;
  } cases[] = {{kRemote, "/D$/Data/shop.ini", 8117},
               {"\\\\srv\\share\\f", "//$srv/share/f", 8117},
               {"\xc3\xa9:\\x", "/\xc3\xa9$/x", 8117},
               {"", "/$", 8116}};
  for (const auto& c : cases) {
    std::string local = "before";
    EXPECT_FALSE(fso_.getUpdatedServerFileToTempFolder(c.remote, local)) << c.remote;
    EXPECT_EQ(local, fso_.CacheFolder() + c.path) << c.remote;
    EXPECT_EQ(fso_.ErrCode(), c.code) << c.remote;
  }
  EXPECT_EQ(fso_.ErrDescription(), "Empty remote file name");
  RCFSOTestAccess::Socket(fso_).SetRemoteHost("srv");
  std::string local;
  EXPECT_FALSE(fso_.getUpdatedServerFileToTempFolder(kRemote, local));
  EXPECT_EQ(fso_.ErrCode(), 8117);
  EXPECT_EQ(fso_.ErrDescription(), "Connection has not established");
  EXPECT_EQ(local, fso_.CacheFolder() + "srv/D$/Data/shop.ini");
}

TEST_F(RCFSOCache, FetchesAMissingFileOnceAndFindsItCurrent) {
  const Bytes content = {'[', 's', ']', '\n'};
  const uint64_t write = kServerWrite + kTicksPerSecond / 2;
  ExpectLogin(peer_, true);
  ScriptDownload(peer_, content, write);
  ScriptFileInfo(peer_, write);
  ASSERT_TRUE(LogIn(fso_, peer_));
  std::string local;
  EXPECT_TRUE(fso_.getUpdatedServerFileToTempFolder(kRemote, local)) << fso_.ErrDescription();
  EXPECT_EQ(local, Cached());
  EXPECT_EQ(ReadFileBytes(local), content);
  EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
}

TEST_F(RCFSOCache, RefetchesOnlyWhenTheSecondsDiffer) {
  const Bytes old_content = {'o', 'l', 'd'};
  const Bytes new_content = {'n', 'e', 'w', '!'};
  struct Case {
    uint64_t cached;
    uint64_t server;
    bool fetched;
  } cases[] = {
      {kServerWrite + 9 * kTicksPerSecond / 10, kServerWrite + 1, false},  // same second
      {kServerWrite, kServerWrite + kTicksPerSecond, true},                // one second older
      {kServerWrite + 2 * kTicksPerSecond, kServerWrite, true},            // newer than the server
  };
  for (const Case& c : cases) {
    ScriptedPeer peer;
    RCFSO fso;
    const std::string cached = fso.CacheFolder() + "127.0.0.1/D$/Data/shop.ini";
    PlaceFile(cached, old_content, c.cached);
    ExpectLogin(peer, true);
    ScriptFileInfo(peer, c.server);
    if (c.fetched) ScriptDownload(peer, new_content, c.server);
    ASSERT_TRUE(LogIn(fso, peer));
    std::string local;
    EXPECT_TRUE(fso.getUpdatedServerFileToTempFolder(kRemote, local));
    EXPECT_EQ(ReadFileBytes(local), c.fetched ? new_content : old_content);
    EXPECT_TRUE(peer.Finish()) << peer.Failure();
  }
}

TEST_F(RCFSOCache, FailuresAreLoggedAsErrors) {
  RCFSOTestAccess::Socket(fso_).SetRemoteHost("127.0.0.1");  // but not connected
  std::string local;
  EXPECT_FALSE(fso_.getUpdatedServerFileToTempFolder(kRemote, local));
  EXPECT_EQ(fso_.ErrCode(), 8117);
  EXPECT_TRUE(log_.Has(".err", {"E", "OrvSettingReader", "getUpdatedServerFileToTempFolder",
                                "Cannot get D:\\Data\\shop.ini from server"}));

  PlaceFile(Cached(), {'x'}, kServerWrite);
  EXPECT_FALSE(fso_.getUpdatedServerFileToTempFolder(kRemote, local));
  EXPECT_EQ(local, Cached());
  EXPECT_TRUE(log_.Has(".err", {"E", "RCFSO", "getUpdatedServerFileToTempFolder",
                                "cannot access remote D:\\Data\\shop.ini"}));
}

TEST_F(RCFSOCache, AddressesComeFromTheSocket) {
  EXPECT_EQ(fso_.getLocalIP(), RCFSOTestAccess::Socket(fso_).LocalIP());
  EXPECT_EQ(fso_.getRemoteIP(), "");
}

}  // namespace
}  // namespace pelmora::admin
