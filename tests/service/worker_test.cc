// The account workers: every logged-in session is served by a process of its account's user
// (real, effective and saved ids, groups, no capabilities, no new privileges), one per account,
// which ends when its sessions have gone, with a reload that removes its account, and with the
// service's stop; requests take effect as that user, and a request sent right behind the login
// is served.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmorad/worker.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RequestCode;

// The lines of /proc/PID/status by name ("Uid" -> "1000\t1000\t1000\t1000").
std::map<std::string, std::string> StatusOf(pid_t pid) {
  std::map<std::string, std::string> fields;
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::size_t value = line.find_first_not_of(" \t", colon + 1);
    std::size_t end = line.find_last_not_of(" \t");
    fields[line.substr(0, colon)] =
        value == std::string::npos ? "" : line.substr(value, end + 1 - value);
  }
  return fields;
}

// The workers of service `service`: its children started in worker mode.
std::set<pid_t> WorkersOf(pid_t service) {
  std::set<pid_t> workers;
  DIR* proc = ::opendir("/proc");
  while (dirent* entry = proc != nullptr ? ::readdir(proc) : nullptr) {
    pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
    if (pid <= 0 || StatusOf(pid)["PPid"] != std::to_string(service)) continue;
    std::string command_line = ReadFile("/proc/" + std::to_string(pid) + "/cmdline");
    if (command_line.find(kWorkerOption) != std::string::npos) workers.insert(pid);
  }
  if (proc != nullptr) ::closedir(proc);
  return workers;
}

// How many of process `pid`'s descriptors are sockets.
int SocketsOf(pid_t pid) {
  std::string folder = "/proc/" + std::to_string(pid) + "/fd";
  int sockets = 0;
  DIR* fds = ::opendir(folder.c_str());
  while (dirent* entry = fds != nullptr ? ::readdir(fds) : nullptr) {
    char target[64] = {};
    std::string link = folder + "/" + entry->d_name;
    if (::readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
        std::string_view(target).starts_with("socket:")) {
      sockets += 1;
    }
  }
  if (fds != nullptr) ::closedir(fds);
  return sockets;
}

std::string Repeated(uid_t id) {
  std::string one = std::to_string(id);
  return one + "\t" + one + "\t" + one + "\t" + one;
}

std::string AccountsFor(const ScopedUser& alpha, const ScopedUser& beta, bool with_beta = true) {
  std::string accounts = "[accounts.alpha]\npassword = \"" + HashOf(kOperatorPassword) +
                         "\"\ncommands = true\nrun_as = \"" + alpha.name() + "\"\n";
  if (with_beta) {
    accounts += "[accounts.beta]\npassword = \"" + HashOf(kOperatorPassword) +
                "\"\nrun_as = \"" + beta.name() + "\"\n";
  }
  return accounts +
         "[limits]\ngrace_seconds = 1\nsessions = 2000\nsessions_per_address = 2000\n";
}

class ServiceWorkers : public ::testing::Test {
 protected:
  ServiceWorkers() : alpha_("pelmwa"), beta_("pelmwb"), service_(AccountsFor(alpha_, beta_)) {}

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "workers change their user only when the service is root";
    ASSERT_TRUE(alpha_.ok() && beta_.ok());
    ASSERT_TRUE(service_.Start()) << service_.ErrorOutput();
    // The accounts' users write drive C, and their commands reach it by name.
    ::chmod(service_.folder().c_str(), 0755);
    ::chmod(service_.Drive('C').c_str(), 0777);
  }

  // Logs `client` in as `account` and makes one request, so its worker serves it.
  bool Served(RawClient& client, const char* account) {
    if (!client.Connect(service_.port())) return false;
    auto login = client.Login(account, kOperatorPassword);
    return login && login->success && DriveAnswers(client);
  }

  // True when the session's worker answers that drive C's root exists.
  static bool DriveAnswers(RawClient& client) {
    if (!client.RequestPath(RequestCode::kFolderExists, "C:\\")) return false;
    auto reply = client.ReadResult();
    return reply && reply->success;
  }

  // The worker whose real user is `user`; -1 when none.
  pid_t WorkerOf(const ScopedUser& user) {
    for (pid_t pid : WorkersOf(service_.pid())) {
      if (StatusOf(pid)["Uid"] == Repeated(user.uid())) return pid;
    }
    return -1;
  }

  ScopedUser alpha_;
  ScopedUser beta_;
  ServiceProcess service_;
};

TEST_F(ServiceWorkers, EachAccountIsServedByOneWorkerOfItsOwnUserOnly) {
  RawClient first, second, other;
  ASSERT_TRUE(Served(first, "alpha")) << service_.ErrorOutput();
  ASSERT_TRUE(Served(second, "alpha"));
  ASSERT_TRUE(Served(other, "beta"));
  EXPECT_EQ(WorkersOf(service_.pid()).size(), 2u);
  for (const ScopedUser* user : {&alpha_, &beta_}) {
    pid_t worker = WorkerOf(*user);
    ASSERT_GT(worker, 0) << user->name();
    std::map<std::string, std::string> status = StatusOf(worker);
    EXPECT_EQ(status["Gid"], Repeated(user->gid()));
    EXPECT_EQ(status["Groups"], std::to_string(user->gid()));
    EXPECT_EQ(status["CapEff"], "0000000000000000");
    EXPECT_EQ(status["CapPrm"], "0000000000000000");
    EXPECT_EQ(status["NoNewPrivs"], "1");
  }
  // The root process itself serves no request.
  EXPECT_EQ(StatusOf(service_.pid())["Uid"], Repeated(0));
}

TEST_F(ServiceWorkers, AWorkerHoldsItsOwnSessionsAndLinkButNoOtherSocketOfTheService) {
  RawClient waiting, served;
  ASSERT_TRUE(waiting.Connect(service_.port()));  // held by the root process, not logged in
  ASSERT_TRUE(Served(served, "alpha"));
  pid_t worker = WorkerOf(alpha_);
  ASSERT_GT(worker, 0);
  EXPECT_EQ(SocketsOf(worker), 2);  // the link to the root process and the one session
  EXPECT_GE(SocketsOf(service_.pid()), 3);
}

TEST_F(ServiceWorkers, RequestsTakeEffectAsTheAccountsUserWhoCannotBecomeRoot) {
  pelmora::admin::RCFSO alpha;
  ASSERT_TRUE(alpha.Connect("127.0.0.1", service_.port(), "alpha", kOperatorPassword, false));
  alpha.set_timeout(20000);
  std::string drive = service_.Drive('C');
  ASSERT_TRUE(alpha.SyncCreateProcess(
      "cd " + drive + " && id -u > uid && id -G > groups && /usr/bin/perl -e '$< = 0; $> = 0; "
      "print $> == 0 ? \"root\" : \"refused\"' > setuid",
      20000))
      << alpha.ErrDescription();
  EXPECT_EQ(ReadFile(drive + "/uid"), std::to_string(alpha_.uid()) + "\n");
  EXPECT_EQ(ReadFile(drive + "/groups"), std::to_string(alpha_.gid()) + "\n");
  EXPECT_EQ(ReadFile(drive + "/setuid"), "refused");

  RawClient beta;
  ASSERT_TRUE(Served(beta, "beta"));
  ASSERT_TRUE(beta.RequestPath(RequestCode::kCreateRemoteFolder, "C:\\made"));
  ASSERT_TRUE(beta.ReadResult());
  struct stat made {};
  ASSERT_EQ(::stat((drive + "/made").c_str(), &made), 0);
  EXPECT_EQ(made.st_uid, beta_.uid());
  EXPECT_EQ(made.st_gid, beta_.gid());
}

TEST_F(ServiceWorkers, AWorkerEndsOnceItsLastSessionHasGoneAndAFreshOneFollows) {
  RawClient client;
  ASSERT_TRUE(Served(client, "alpha"));
  pid_t worker = WorkerOf(alpha_);
  ASSERT_GT(worker, 0);
  client.Close();
  EXPECT_TRUE(ProcessEnds(worker, 15000));
  ASSERT_TRUE(Served(client, "alpha"));
  EXPECT_GT(WorkerOf(alpha_), 0);
}

// Many sessions ending at once fill the link with their ends; the root process must hear of every
// one, or the worker (which it believes still serves some) would never be told to end.
TEST_F(ServiceWorkers, EveryEndOfManySessionsEndingAtOnceIsCounted) {
  constexpr int kSessions = 600;
  std::vector<RawClient> clients(kSessions);
  for (RawClient& client : clients) {
    ASSERT_TRUE(client.Connect(service_.port()));
    auto login = client.Login("beta", kOperatorPassword);
    ASSERT_TRUE(login && login->success) << service_.ErrorOutput();
  }
  ASSERT_TRUE(DriveAnswers(clients.back()));
  pid_t worker = WorkerOf(beta_);
  ASSERT_GT(worker, 0);
  clients.clear();
  EXPECT_TRUE(ProcessEnds(worker, 20000));
}

TEST_F(ServiceWorkers, ARequestSentRightBehindTheLoginIsServed) {
  RawClient client;
  ASSERT_TRUE(client.Connect(service_.port()));
  int32_t login = pelmora::admin::NextSequenceNumber(pelmora::admin::kFirstSequenceNumber);
  int32_t size = pelmora::admin::NextSequenceNumber(login);
  std::vector<Bytes> args = {pelmora::admin::EncodeUnicodeArgument("C:\\")};
  Bytes burst = pelmora::admin::BuildFramedPacket(
      login, pelmora::admin::BuildLoginMessage(pelmora::admin::EncodeCredential("alpha"),
                                               pelmora::admin::EncodeCredential(kOperatorPassword)));
  Bytes announce = pelmora::admin::BuildFramedPacket(
      size, pelmora::admin::BuildSizeMessage(pelmora::admin::RequestBlockTotal(args)));
  Bytes block = pelmora::admin::BuildRequestBlock(RequestCode::kFolderExists, args);
  burst.insert(burst.end(), announce.begin(), announce.end());
  burst.insert(burst.end(), block.begin(), block.end());
  ASSERT_TRUE(client.Send(burst));  // one write: the request is there before the login's answer
  for (int32_t sequence : {login, size}) {
    std::optional<Bytes> packet = client.Read(pelmora::admin::kPacketSize);
    ASSERT_TRUE(packet) << service_.ErrorOutput();
    pelmora::admin::FramedMessage reply = pelmora::admin::ParseFramedPacket(*packet, sequence);
    ASSERT_EQ(reply.fault, pelmora::admin::PacketFault::kNone);
    auto result = pelmora::admin::ParseResultReply(reply.data);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->success);
  }
}

TEST_F(ServiceWorkers, AReloadEndsTheWorkerOfARemovedAccountOnly) {
  RawClient alpha, beta;
  ASSERT_TRUE(Served(alpha, "alpha") && Served(beta, "beta")) << service_.ErrorOutput();
  pid_t alpha_worker = WorkerOf(alpha_), beta_worker = WorkerOf(beta_);
  ASSERT_GT(beta_worker, 0);
  service_.WriteConfig(AccountsFor(alpha_, beta_, false));
  service_.Signal(SIGHUP);
  EXPECT_TRUE(beta.WaitForClose(10000)) << service_.ErrorOutput();
  EXPECT_TRUE(ProcessEnds(beta_worker, 10000));
  EXPECT_TRUE(DriveAnswers(alpha));
  EXPECT_EQ(WorkerOf(alpha_), alpha_worker);
  RawClient again;
  ASSERT_TRUE(again.Connect(service_.port()));
  auto refused = again.Login("beta", kOperatorPassword);
  ASSERT_TRUE(refused);
  EXPECT_FALSE(refused->success);
}

TEST_F(ServiceWorkers, SigtermEndsEveryWorkerWithTheService) {
  RawClient running, idle;
  ASSERT_TRUE(Served(running, "alpha") && Served(idle, "beta")) << service_.ErrorOutput();
  std::string command = "sleep 60";
  ASSERT_TRUE(running.SendFramed(
      pelmora::admin::BuildSizeMessage(pelmora::admin::CommandRequestTotal(command))));
  ASSERT_TRUE(running.Send(pelmora::admin::BuildCommandRequest(command, 0)));
  std::set<pid_t> workers = WorkersOf(service_.pid());
  ASSERT_EQ(workers.size(), 2u);
  EXPECT_EQ(service_.Stop(SIGTERM), 0) << service_.ErrorOutput();
  for (pid_t worker : workers) EXPECT_TRUE(ProcessEnds(worker, 5000)) << worker;
  EXPECT_TRUE(running.WaitForClose(1000));
  EXPECT_TRUE(idle.WaitForClose(1000));
}

}  // namespace
}  // namespace pelmorad::testing
