// Whose files the service writes and whose identity a saved task gets: files created through the
// service belong to the account's run_as user, never carry setuid or setgid bits, never take a
// mode read through a link out of the drive; the Tasks folder takes changes only from accounts
// with the tasks or commands right, and a task runs with its uploader's identity.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "pelmora/admin/wire_replies.h"
#include "pelmora/sched/job_file.h"
#include "pelmora/sched/task.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::EncodeUnicodeArgument;
using pelmora::admin::RequestCode;

std::string AccountsFor(const std::string& user) {
  return "[accounts.owned]\npassword = \"" + HashOf(kOperatorPassword) +
         "\"\nrun_as = \"" + user + "\"\n" +
         "[accounts.tasker]\npassword = \"" + HashOf(kOperatorPassword) +
         "\"\ntasks = true\nrun_as = \"" + user + "\"\n" +
         "[accounts.writer]\npassword = \"" + HashOf(kOperatorPassword) + "\"\n" +
         "[scheduler]\nenabled = true\nfolder = 'C:\\tasks'\n";
}

struct FileState {
  uid_t uid = 0;
  mode_t mode = 0;
};

FileState StateOf(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return {static_cast<uid_t>(-1), 0};
  return {info.st_uid, info.st_mode & 07777};
}

class ServiceIdentity : public ::testing::Test {
 protected:
  ServiceIdentity() : user_("pelmt"), service_(AccountsFor(user_.name())) {}

  void SetUp() override {
    ASSERT_TRUE(user_.ok());
    ASSERT_TRUE(service_.Start()) << service_.ErrorOutput();
    // File work runs as the accounts' users: let them all write the drive.
    ::chmod(service_.Drive('C').c_str(), 0777);
  }

  bool LoginAs(RawClient& client, const char* account) {
    if (!client.Connect(service_.port())) return false;
    auto reply = client.Login(account, kOperatorPassword);
    return reply && reply->success;
  }

  // The result code of a request (0 for success, -1 when no reply came).
  static int32_t ResultOf(RawClient& client, RequestCode code, const std::vector<Bytes>& args) {
    if (!client.Request(code, args)) return -1;
    auto reply = client.ReadResult();
    if (!reply) return -1;
    return reply->success ? 0 : reply->code;
  }

  static int32_t UploadResult(RawClient& client, std::string_view path, std::string_view content) {
    bool refused = false;
    auto reply = client.Upload(path, content, pelmora::admin::TransferHeader{}, &refused);
    if (refused) return 5;
    if (!reply) return -1;
    return reply->success ? 0 : reply->code;
  }

  std::string C(const std::string& relative) const { return service_.Drive('C') + "/" + relative; }

  ScopedUser user_;
  ServiceProcess service_;
};

TEST_F(ServiceIdentity, FilesTheServiceCreatesBelongToTheAccountsUser) {
  WriteFile(C("source.txt"), "copied");
  RawClient client;
  ASSERT_TRUE(LoginAs(client, "owned"));
  ASSERT_EQ(UploadResult(client, "C:\\uploaded.txt", "content"), 0);
  ASSERT_EQ(ResultOf(client, RequestCode::kCreateRemoteFile,
                     {EncodeUnicodeArgument("C:\\created.txt"), EncodeUnicodeArgument("FALSE"),
                      EncodeUnicodeArgument("FALSE")}),
            0);
  ASSERT_EQ(ResultOf(client, RequestCode::kCreateRemoteFolder, {EncodeUnicodeArgument("C:\\made")}),
            0);
  ASSERT_EQ(ResultOf(client, RequestCode::kCopyRemoteFile,
                     {EncodeUnicodeArgument("C:\\source.txt"), EncodeUnicodeArgument("C:\\copy.txt"),
                      EncodeUnicodeArgument("FALSE")}),
            0);
  for (const char* name : {"uploaded.txt", "created.txt", "made", "copy.txt"}) {
    EXPECT_EQ(StateOf(C(name)).uid, user_.uid()) << name;
  }
}

TEST_F(ServiceIdentity, UploadsAndCopiesNeverMakeSetuidOrSetgidFiles) {
  WriteFile(C("program"), "old");
  ::chmod(C("program").c_str(), 04755);
  WriteFile(C("grouped"), "old");
  ::chmod(C("grouped").c_str(), 02750);
  WriteFile(C("source.txt"), "new");
  RawClient client;
  ASSERT_TRUE(LoginAs(client, "owned"));
  ASSERT_EQ(UploadResult(client, "C:\\program", "replaced"), 0);
  ASSERT_EQ(ResultOf(client, RequestCode::kCopyRemoteFile,
                     {EncodeUnicodeArgument("C:\\source.txt"), EncodeUnicodeArgument("C:\\grouped"),
                      EncodeUnicodeArgument("TRUE")}),
            0);
  EXPECT_EQ(StateOf(C("program")).mode, 0755u);  // the permission bits stay
  EXPECT_EQ(StateOf(C("grouped")).mode, 0750u);
  EXPECT_EQ(ReadFile(C("program")), "replaced");
}

TEST_F(ServiceIdentity, NoModeIsReadThroughALinkOutOfTheDrive) {
  std::string outside = service_.folder() + "/outside-program";
  WriteFile(outside, "outside");
  ::chmod(outside.c_str(), 0711);
  ASSERT_EQ(::symlink(outside.c_str(), C("link").c_str()), 0);
  RawClient client;
  ASSERT_TRUE(LoginAs(client, "owned"));
  ASSERT_EQ(UploadResult(client, "C:\\link", "replaced"), 0);
  EXPECT_EQ(StateOf(C("link")).mode, 0644u);  // the default, not the outside file's 0711
  EXPECT_EQ(ReadFile(outside), "outside");
}

TEST_F(ServiceIdentity, TasksFolderRefusesChangesFromAccountsWithoutTheRight) {
  ::mkdir(C("elsewhere").c_str(), 0777);
  ::chmod(C("elsewhere").c_str(), 0777);
  WriteFile(C("elsewhere/plain.job"), "x");
  RawClient client;
  ASSERT_TRUE(LoginAs(client, "writer"));
  EXPECT_EQ(UploadResult(client, "C:\\tasks\\evil.job", "x"), 5);
  EXPECT_EQ(ResultOf(client, RequestCode::kCreateRemoteFile,
                     {EncodeUnicodeArgument("C:\\Tasks\\..\\tasks\\evil.job"),
                      EncodeUnicodeArgument("FALSE"), EncodeUnicodeArgument("FALSE")}),
            5);
  EXPECT_EQ(ResultOf(client, RequestCode::kCopyRemoteFile,
                     {EncodeUnicodeArgument("C:\\elsewhere\\plain.job"),
                      EncodeUnicodeArgument("C:\\tasks\\evil.job"), EncodeUnicodeArgument("FALSE")}),
            5);
  EXPECT_EQ(ResultOf(client, RequestCode::kMoveRemoteFile,
                     {EncodeUnicodeArgument("C:\\tasks"), EncodeUnicodeArgument("C:\\moved")}),
            5);
  EXPECT_FALSE(PathExists(C("tasks/evil.job")));
  // Writing elsewhere on the drive still works for the same account.
  EXPECT_EQ(UploadResult(client, "C:\\elsewhere\\fine.txt", "x"), 0);
}

TEST_F(ServiceIdentity, AnUploadedTaskRunsWithItsUploadersIdentityWhateverItsRecordSays) {
  ::chmod(service_.folder().c_str(), 0755);
  ::mkdir(C("out").c_str(), 0777);
  ::chmod(C("out").c_str(), 0777);
  ::chmod(C("tasks").c_str(), 0777);
  std::string marker = C("out/uid.txt");
  pelmora::sched::JobFile job;
  job.application_name = "/bin/sh";
  job.parameters = "-c \"id -u > " + marker + "\"";
  job.working_directory = "/";
  job.flags = pelmora::sched::kRunRequestFlag;
  RawClient client;
  ASSERT_TRUE(LoginAs(client, "tasker"));
  ASSERT_EQ(UploadResult(client, "C:\\tasks\\mine.job.account", "root"), 0);
  ASSERT_EQ(UploadResult(client, "C:\\tasks\\mine.job", pelmora::sched::SerializeJobFile(job)), 0);
  ASSERT_TRUE(WaitForLine(marker)) << service_.ErrorOutput();
  EXPECT_EQ(ReadFile(marker), std::to_string(user_.uid()) + "\n");
}

// Accounts of different users taking turns, with one file-work thread per process: each
// request's access checks are its own account's whichever account came before.
class ServiceIdentityInTurn : public ServiceIdentity {
 protected:
  ServiceIdentityInTurn() { service_.WriteConfig(AccountsFor(user_.name()) + "[limits]\nworkers = 1\n"); }

  // The size a download of `path` announces as `account` (-1 refused, -2 no answer).
  int32_t DownloadSize(const char* account, std::string_view path) {
    RawClient client;
    if (!LoginAs(client, account)) return -2;
    auto download = client.Download(path);
    return download ? download->first.size : -2;
  }
};

TEST_F(ServiceIdentityInTurn, AccessChecksFollowTheAccountWhoeverCameBefore) {
  WriteFile(C("secret.txt"), "root only");
  ::chmod(C("secret.txt").c_str(), 0600);
  EXPECT_EQ(DownloadSize("owned", "C:\\secret.txt"), -1);   // the run_as user may not read it
  EXPECT_EQ(DownloadSize("writer", "C:\\secret.txt"), -1);  // nor may nobody
  EXPECT_EQ(DownloadSize("operator", "C:\\secret.txt"), 9);  // run_as root
  EXPECT_EQ(DownloadSize("owned", "C:\\secret.txt"), -1);
  RawClient client;
  ASSERT_TRUE(LoginAs(client, "writer"));
  ASSERT_EQ(UploadResult(client, "C:\\by-nobody.txt", "x"), 0);
  struct stat info {};
  ASSERT_EQ(::stat(C("by-nobody.txt").c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 65534u);  // an account without run_as works as nobody
}

}  // namespace
}  // namespace pelmorad::testing
