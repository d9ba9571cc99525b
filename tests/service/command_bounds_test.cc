// Commands cannot outlive their bounds: a command dies with its session when the client stops
// reading, its time-out holds while its output waits for the client, and its place under
// limits.commands comes back as soon as it has ended.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire_replies.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RCFSO;

class ServiceCommandBounds : public ::testing::Test {
 protected:
  explicit ServiceCommandBounds(int idle_seconds)
      : service_("[limits]\ncommands = 1\nidle_seconds = " + std::to_string(idle_seconds) + "\n") {}

  void SetUp() override { ASSERT_TRUE(service_.Start()); }

  // Logs `client` in and starts `command` with `timeout` ms; returns once its first output has
  // arrived, after which the client reads no more.
  bool StartFlood(RawClient& client, const std::string& command, int32_t timeout) {
    if (!client.Connect(service_.port())) return false;
    auto login = client.Login("operator", kOperatorPassword);
    if (!login || !login->success) return false;
    auto block = pelmora::admin::BuildCommandRequest(command, timeout);
    return client.SendFramed(
               pelmora::admin::BuildSizeMessage(pelmora::admin::CommandRequestTotal(command))) &&
           client.Send(block) && client.ReadFramed().has_value();
  }

  // True when another client gets to run a command: its place is free again. The service frees
  // it on the I/O thread right after the exit this test has already seen, so a few tries suffice.
  bool AnotherClientRunsACommand() {
    RCFSO fso;
    fso.set_timeout(10000);
    if (!fso.Connect("127.0.0.1", service_.port(), "operator", kOperatorPassword, false)) {
      return false;
    }
    for (int attempt = 0; attempt < 20; ++attempt) {
      if (fso.SyncCreateProcess("true", 10000)) return true;
      if (fso.ErrCode() != 9001) return false;
    }
    return false;
  }

  pid_t ShellPid() { return std::atoi(ReadFile(pid_file_).c_str()); }

  ServiceProcess service_;
  std::string pid_file_ = service_.folder() + "/shell.pid";
};

class ServiceCommandShortIdle : public ServiceCommandBounds {
 protected:
  ServiceCommandShortIdle() : ServiceCommandBounds(1) {}
};

class ServiceCommandLongIdle : public ServiceCommandBounds {
 protected:
  ServiceCommandLongIdle() : ServiceCommandBounds(600) {}
};

TEST_F(ServiceCommandShortIdle, CommandWithoutTimeOutDiesWhenItsSilentClientIsClosed) {
  RawClient client;
  ASSERT_TRUE(StartFlood(client, "echo $$ > " + pid_file_ + "; yes", 0));
  ASSERT_GT(ShellPid(), 0);
  EXPECT_TRUE(ProcessEnds(ShellPid(), 10000));
  EXPECT_TRUE(AnotherClientRunsACommand());
}

TEST_F(ServiceCommandLongIdle, TimeOutKillsACommandWhoseClientDoesNotReadAndFreesItsPlace) {
  RawClient client;
  ASSERT_TRUE(StartFlood(client, "echo $$ > " + pid_file_ + "; yes", 300));
  ASSERT_GT(ShellPid(), 0);
  EXPECT_TRUE(ProcessEnds(ShellPid(), 10000));
  // The first client's session still waits on its full socket; the place is free all the same.
  EXPECT_TRUE(AnotherClientRunsACommand());
}

TEST_F(ServiceCommandShortIdle, SilentCommandOutlastsTheIdleTime) {
  RCFSO fso;
  fso.set_timeout(20000);
  ASSERT_TRUE(fso.Connect("127.0.0.1", service_.port(), "operator", kOperatorPassword, false));
  EXPECT_TRUE(fso.SyncCreateProcess("echo first; sleep 2; echo done", 20000))
      << fso.ErrDescription();
  EXPECT_EQ(fso.ErrCode(), 0);
}

// Commands whose processes leave the process group: setsid, and a double fork whose middle
// process ends at once, so the grandchild is an orphan. Each writes the detached pid to a file.
struct Detaching {
  const char* name;
  const char* command;  // %s: the pid file
};

TEST_F(ServiceCommandLongIdle, TimeOutKillsProcessesThatLeftTheGroup) {
  const Detaching cases[] = {
      {"setsid", "setsid sh -c 'echo $$ > %s; exec sleep 60' & wait"},
      {"double fork", "(setsid sh -c 'echo $$ > %s; exec sleep 60' &) ; sleep 60"},
  };
  for (const Detaching& test : cases) {
    SCOPED_TRACE(test.name);
    std::string pid_file = service_.folder() + "/detached.pid";
    ::unlink(pid_file.c_str());
    char command[512];
    std::snprintf(command, sizeof(command), test.command, pid_file.c_str());
    // The shell waits for the detached process to have written its pid before the time-out.
    std::string full = "(" + std::string(command) + ") & while [ ! -s " + pid_file + " ]; do sleep 0.05; done; " +
                       "echo detached; wait";
    RCFSO fso;
    fso.set_timeout(20000);
    ASSERT_TRUE(fso.Connect("127.0.0.1", service_.port(), "operator", kOperatorPassword, false));
    EXPECT_FALSE(fso.SyncCreateProcess(full, 2000));
    EXPECT_EQ(fso.ErrCode(), 9003);
    pid_t detached = std::atoi(ReadFile(pid_file).c_str());
    ASSERT_GT(detached, 0);
    EXPECT_TRUE(ProcessEnds(detached, 10000));
    if (!ProcessEnds(detached, 0)) ::kill(detached, SIGKILL);
  }
}

TEST_F(ServiceCommandShortIdle, SessionEndKillsProcessesThatLeftTheGroup) {
  RawClient client;
  std::string pid_file = service_.folder() + "/detached.pid";
  std::string command = "(setsid sh -c 'echo $$ > " + pid_file +
                        "; exec sleep 60' &); while [ ! -s " + pid_file +
                        " ]; do sleep 0.05; done; echo detached; sleep 60";
  ASSERT_TRUE(StartFlood(client, command, 0));
  client.Close();
  pid_t detached = std::atoi(ReadFile(pid_file).c_str());
  ASSERT_GT(detached, 0);
  EXPECT_TRUE(ProcessEnds(detached, 10000));
  if (!ProcessEnds(detached, 0)) ::kill(detached, SIGKILL);
}

}  // namespace
}  // namespace pelmorad::testing

namespace pelmorad::testing {
namespace {

TEST(ServiceShutdown, SigtermEndsTheServiceWhateverItsClientsDo) {
  ServiceProcess service("[limits]\ngrace_seconds = 1\n");
  ASSERT_TRUE(service.Start());
  std::string fifo = service.Drive('C') + "/pipe";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
  RawClient flood, stalled, silent, reading_fifo;
  // A command whose client reads nothing, with detached helpers.
  ASSERT_TRUE(flood.Connect(service.port()));
  ASSERT_TRUE(flood.Login("operator", kOperatorPassword)->success);
  std::string command = "(setsid sleep 60 &); yes";
  ASSERT_TRUE(flood.SendFramed(
      pelmora::admin::BuildSizeMessage(pelmora::admin::CommandRequestTotal(command))));
  ASSERT_TRUE(flood.Send(pelmora::admin::BuildCommandRequest(command, 0)));
  ASSERT_TRUE(flood.ReadFramed().has_value());
  // An upload that stops after its first bytes.
  ASSERT_TRUE(stalled.Connect(service.port()));
  ASSERT_TRUE(stalled.Login("operator", kOperatorPassword)->success);
  pelmora::admin::TransferHeader header;
  header.size = 150000;
  ASSERT_TRUE(stalled.RequestPath(pelmora::admin::RequestCode::kUpload, "C:\\half.bin"));
  ASSERT_TRUE(stalled.SendFramed(pelmora::admin::BuildTransferHeader(header)));
  ASSERT_TRUE(stalled.ReadFramed().has_value());
  ASSERT_TRUE(stalled.Send(std::vector<uint8_t>(15000, 0x55)));
  // A download of a FIFO and a connection that never logs in.
  ASSERT_TRUE(reading_fifo.Connect(service.port()));
  ASSERT_TRUE(reading_fifo.Login("operator", kOperatorPassword)->success);
  ASSERT_TRUE(reading_fifo.RequestPath(pelmora::admin::RequestCode::kDownload, "C:\\pipe"));
  ASSERT_TRUE(reading_fifo.ReadFramed().has_value());
  ASSERT_TRUE(silent.Connect(service.port()));
  EXPECT_EQ(service.Stop(SIGTERM), 0) << service.ErrorOutput();
  EXPECT_FALSE(PathExists(service.Drive('C') + "/half.bin"));
}

}  // namespace
}  // namespace pelmorad::testing
