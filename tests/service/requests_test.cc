// The file, folder and machine requests through the library's RCFSO against a real service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "pelmora/admin/admin_client.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/common/date.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RCFSO;

class ServiceRequests : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    ASSERT_TRUE(Login(fso_, "operator", kOperatorPassword)) << fso_.ErrDescription() << "\n"
                                                            << service_.ErrorOutput();
  }

  bool Login(RCFSO& fso, std::string_view user, std::string_view password) {
    return service_.ConnectClient(fso, user, password);
  }

  std::string C(const std::string& relative) { return service_.Drive('C') + "/" + relative; }

  void ExpectFailure(int32_t code, std::string_view text) {
    EXPECT_EQ(fso_.ErrCode(), code);
    EXPECT_EQ(fso_.ErrDescription(), text);
  }

  ServiceProcess service_;
  RCFSO fso_;
};

TEST_F(ServiceRequests, ExistenceTestsTellFilesFromFolders) {
  WriteFile(C("a.txt"), "x");
  ::mkdir(C("dir").c_str(), 0755);
  EXPECT_TRUE(fso_.FileExists("C:\\a.txt"));
  EXPECT_FALSE(fso_.FileExists("C:\\dir"));
  EXPECT_FALSE(fso_.FileExists("C:\\missing.txt"));
  ExpectFailure(2, "The system cannot find the file specified.");
  EXPECT_FALSE(fso_.FileExists("C:\\nofolder\\a.txt"));
  ExpectFailure(3, "The system cannot find the path specified.");
  EXPECT_TRUE(fso_.FolderExists("C:/dir/"));
  EXPECT_TRUE(fso_.FolderExists("c:\\"));
  EXPECT_FALSE(fso_.FolderExists("C:\\a.txt"));
  EXPECT_FALSE(fso_.FolderExists("Q:\\dir"));
  ExpectFailure(3, "The system cannot find the path specified.");
}

TEST_F(ServiceRequests, CreateFileHonoursOverwriteAndUnicode) {
  EXPECT_TRUE(fso_.CreateRemoteFile("C:\\new.txt", false, false)) << fso_.ErrDescription();
  EXPECT_EQ(ReadFile(C("new.txt")), "");
  WriteFile(C("new.txt"), "old");
  EXPECT_FALSE(fso_.CreateRemoteFile("C:\\new.txt", false, false));
  ExpectFailure(80, "The file exists.");
  EXPECT_EQ(ReadFile(C("new.txt")), "old");
  EXPECT_TRUE(fso_.CreateRemoteFile("C:\\new.txt", true, true));
  EXPECT_EQ(ReadFile(C("new.txt")), "\xFF\xFE");
  EXPECT_FALSE(fso_.CreateRemoteFile("C:\\nofolder\\x.txt", true, false));
  ExpectFailure(3, "The system cannot find the path specified.");
}

TEST_F(ServiceRequests, FoldersAreCreatedAndDeletedOnlyWhenEmpty) {
  EXPECT_TRUE(fso_.CreateRemoteFolder("C:\\f"));
  EXPECT_FALSE(fso_.CreateRemoteFolder("C:\\f"));
  ExpectFailure(183, "Cannot create a file when that file already exists.");
  EXPECT_FALSE(fso_.CreateRemoteFolder("C:\\x\\y"));
  ExpectFailure(3, "The system cannot find the path specified.");
  WriteFile(C("f/inner.txt"), "1");
  EXPECT_FALSE(fso_.DeleteRemoteFolder("C:\\f"));
  ExpectFailure(145, "The directory is not empty.");
  EXPECT_FALSE(fso_.DeleteRemoteFolder("C:\\f\\inner.txt"));
  ExpectFailure(267, "The directory name is invalid.");
  EXPECT_FALSE(fso_.DeleteRemoteFile("C:\\f"));
  ExpectFailure(5, "Access is denied.");
  EXPECT_TRUE(fso_.DeleteRemoteFile("C:\\f\\inner.txt"));
  EXPECT_FALSE(fso_.DeleteRemoteFile("C:\\f\\inner.txt"));
  ExpectFailure(2, "The system cannot find the file specified.");
  EXPECT_TRUE(fso_.DeleteRemoteFolder("C:\\f"));
  EXPECT_FALSE(PathExists(C("f")));
  EXPECT_FALSE(fso_.DeleteRemoteFolder("C:\\"));
  ExpectFailure(5, "Access is denied.");
}

TEST_F(ServiceRequests, CopyFileRefusesAnExistingTargetWithoutOverwrite) {
  WriteFile(C("src.txt"), "source");
  WriteFile(C("dst.txt"), "target");
  EXPECT_FALSE(fso_.CopyRemoteFile("C:\\src.txt", "C:\\dst.txt", false));
  ExpectFailure(80, "The file exists.");
  EXPECT_FALSE(fso_.CopyRemoteFile("C:\\src.txt", "C:\\dst.txt",
                                   pelmora::admin::AutomationBool::FromRaw(1)));  // only -1 is True
  EXPECT_EQ(ReadFile(C("dst.txt")), "target");
  EXPECT_TRUE(fso_.CopyRemoteFile("C:\\src.txt", "C:\\dst.txt", true));
  EXPECT_EQ(ReadFile(C("dst.txt")), "source");
  EXPECT_TRUE(fso_.CopyRemoteFile("C:\\src.txt", "D:\\across.txt", false));
  EXPECT_EQ(ReadFile(service_.Drive('D') + "/across.txt"), "source");
  EXPECT_FALSE(fso_.CopyRemoteFile("C:\\none.txt", "C:\\x.txt", true));
  ExpectFailure(2, "The system cannot find the file specified.");
}

TEST_F(ServiceRequests, CopyFolderCopiesTheTreeAndRefusesItsOwnInside) {
  ::mkdir(C("tree").c_str(), 0755);
  ::mkdir(C("tree/sub").c_str(), 0755);
  WriteFile(C("tree/a.txt"), "a");
  WriteFile(C("tree/sub/b.txt"), "b");
  EXPECT_TRUE(fso_.CopyRemoteFolder("C:\\tree", "C:\\copy", false)) << fso_.ErrDescription();
  EXPECT_EQ(ReadFile(C("copy/a.txt")), "a");
  EXPECT_EQ(ReadFile(C("copy/sub/b.txt")), "b");
  EXPECT_FALSE(fso_.CopyRemoteFolder("C:\\tree", "C:\\copy", false));
  ExpectFailure(183, "Cannot create a file when that file already exists.");
  WriteFile(C("tree/a.txt"), "changed");
  EXPECT_TRUE(fso_.CopyRemoteFolder("C:\\tree", "C:\\copy", true));
  EXPECT_EQ(ReadFile(C("copy/a.txt")), "changed");
  EXPECT_FALSE(fso_.CopyRemoteFolder("C:\\tree", "C:\\tree\\sub\\again", true));
  ExpectFailure(5, "Access is denied.");
  EXPECT_FALSE(fso_.CopyRemoteFolder("C:\\nothing", "C:\\other", true));
  ExpectFailure(3, "The system cannot find the path specified.");
}

TEST_F(ServiceRequests, MoveNeverReplacesAnExistingTarget) {
  WriteFile(C("m.txt"), "move me");
  WriteFile(C("taken.txt"), "taken");
  EXPECT_FALSE(fso_.MoveRemoteFile("C:\\m.txt", "C:\\taken.txt"));
  ExpectFailure(183, "Cannot create a file when that file already exists.");
  EXPECT_TRUE(fso_.MoveRemoteFile("C:\\m.txt", "C:\\moved.txt"));
  EXPECT_FALSE(PathExists(C("m.txt")));
  EXPECT_EQ(ReadFile(C("moved.txt")), "move me");
  EXPECT_TRUE(fso_.MoveRemoteFile("C:\\moved.txt", "D:\\moved.txt"));
  EXPECT_EQ(ReadFile(service_.Drive('D') + "/moved.txt"), "move me");
  EXPECT_FALSE(fso_.MoveRemoteFile("C:\\m.txt", "C:\\again.txt"));
  ExpectFailure(2, "The system cannot find the file specified.");
}

TEST_F(ServiceRequests, MachineRequestsAnswerFromTheConfiguration) {
  EXPECT_EQ(fso_.GetPathWithKey("QelProgram"), "C:\\qel\\bin");
  EXPECT_EQ(fso_.GetPathWithKey("qelprogram"), "C:\\qel\\bin");
  EXPECT_EQ(fso_.GetPathWithKey("VorProgram"), "");
  EXPECT_EQ(fso_.ErrCode(), 0);
  EXPECT_EQ(fso_.GetSystemDirectory(), "C:\\Windows\\system32");
  EXPECT_EQ(fso_.GetPrintQ(), "");
  EXPECT_EQ(fso_.ErrCode(), 0);
  EXPECT_TRUE(fso_.IsSameMachineWithSvr());
  // The service reads the same clock: its answer lies between the readings around the call.
  const pelmora::Date before = pelmora::Date::FromUnixTime(::time(nullptr));
  const pelmora::Date clock = fso_.GetSystemTime();
  const pelmora::Date after = pelmora::Date::FromUnixTime(::time(nullptr));
  EXPECT_EQ(fso_.ErrCode(), 0) << fso_.ErrDescription();
  EXPECT_GE(clock, before);
  EXPECT_LE(clock, after);
}

TEST_F(ServiceRequests, ReadOnlyAccountReadsButChangesNothing) {
  WriteFile(C("keep.txt"), "keep");
  RCFSO reader;
  ASSERT_TRUE(Login(reader, "reader", kReaderPassword));
  EXPECT_TRUE(reader.FileExists("C:\\keep.txt"));
  EXPECT_FALSE(reader.DeleteRemoteFile("C:\\keep.txt"));
  EXPECT_EQ(reader.ErrCode(), 5);
  EXPECT_EQ(reader.ErrDescription(), "Access is denied.");
  EXPECT_FALSE(reader.CreateRemoteFolder("C:\\new"));
  EXPECT_FALSE(reader.CopyRemoteFile("C:\\keep.txt", "C:\\copy.txt", true));
  EXPECT_FALSE(reader.MoveRemoteFile("C:\\keep.txt", "C:\\moved.txt"));
  EXPECT_EQ(reader.ErrCode(), 5);
  EXPECT_TRUE(PathExists(C("keep.txt")));
  EXPECT_FALSE(PathExists(C("copy.txt")));
}

TEST_F(ServiceRequests, AccountLimitedToOneDriveCannotSeeTheOthers) {
  RCFSO limited;
  ASSERT_TRUE(Login(limited, "donly", kOperatorPassword));
  EXPECT_TRUE(limited.FolderExists("D:\\"));
  EXPECT_FALSE(limited.FolderExists("C:\\"));
  EXPECT_EQ(limited.ErrCode(), 5);
}

TEST_F(ServiceRequests, BuiltInAccountConnectsThroughAdminClient) {
  // AdminClient always uses port 8002: give this service its own loopback address.
  ServiceProcess second;
  std::string host = "127.0.0." + std::to_string(2 + ::getpid() % 250);
  ASSERT_TRUE(second.Start(host + ":8002"));
  pelmora::admin::AdminClient client;
  ASSERT_TRUE(client.Connect(host)) << client.ErrDescription();
  EXPECT_EQ(client.ErrNumber(), 0);
  EXPECT_GT(client.RemoteSystemTime().Serial(), 0);
}

}  // namespace
}  // namespace pelmorad::testing
