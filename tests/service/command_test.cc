// Command lines (code 20) through the library's client: output streamed as it comes, the four
// statuses, time-outs that kill the whole process tree and clients that leave mid-command.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "pelmora/admin/rcfso.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RCFSO;

class OutputCollector : public pelmora::admin::RCFSOEvents {
 public:
  void CommandOutput(std::string& text) override {
    pieces.push_back(text);
    if (pieces.size() == 1 && after_first) after_first();
  }
  std::string All() const {
    std::string all;
    for (const std::string& piece : pieces) all += piece;
    return all;
  }
  std::vector<std::string> pieces;
  std::function<void()> after_first;  // runs once the first piece has arrived
};

class ServiceCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    ASSERT_TRUE(service_.ConnectClient(fso_, "operator", kOperatorPassword));
    fso_.AddEventSink(&output_);
    fso_.set_timeout(20000);
  }

  std::string Scratch(const std::string& name) { return service_.folder() + "/" + name; }

  ServiceProcess service_;
  RCFSO fso_;
  OutputCollector output_;
};

TEST_F(ServiceCommands, OutputOfBothStreamsArrivesInOrder) {
  EXPECT_TRUE(fso_.SyncCreateProcess("echo one; echo two >&2; echo three", 10000))
      << fso_.ErrDescription();
  EXPECT_EQ(output_.All(), "one\ntwo\nthree\n");
  EXPECT_EQ(fso_.ErrCode(), 0);
}

TEST_F(ServiceCommands, NoOutputAndNonZeroExitsEndNormally) {
  EXPECT_TRUE(fso_.SyncCreateProcess("true", 10000));
  EXPECT_TRUE(output_.pieces.empty());
  EXPECT_TRUE(fso_.SyncCreateProcess("exit 3", 0));
  EXPECT_EQ(fso_.ErrCode(), 0);
}

TEST_F(ServiceCommands, SlowOutputIsForwardedBeforeTheCommandEnds) {
  std::string gate = Scratch("gate");
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  // The command prints, then blocks on the FIFO until the client has received the first piece,
  // so the two lines can only arrive together if the service holds output back.
  std::string command = "echo first; read line < " + gate + "; echo second";
  output_.after_first = [&gate] {
    int fd = ::open(gate.c_str(), O_WRONLY);  // blocks until the command opens it
    ASSERT_GE(fd, 0);
    (void)!::write(fd, "go\n", 3);
    ::close(fd);
  };
  EXPECT_TRUE(fso_.SyncCreateProcess(command, 10000));
  ASSERT_EQ(output_.pieces.size(), 2u);
  EXPECT_EQ(output_.pieces[0], "first\n");
  EXPECT_EQ(output_.pieces[1], "second\n");
}

TEST_F(ServiceCommands, UtfEightOutputReachesTheClientAsText) {
  EXPECT_TRUE(fso_.SyncCreateProcess("printf 'caf\\303\\251 ok'", 10000));
  EXPECT_EQ(output_.All(), "caf\xC3\xA9 ok");
}

TEST_F(ServiceCommands, KilledBySignalIsAbnormal) {
  EXPECT_FALSE(fso_.SyncCreateProcess("kill -9 $$", 10000));
  EXPECT_EQ(fso_.ErrCode(), 9002);
  EXPECT_EQ(fso_.ErrDescription(), "Process terminated abnormally");
}

TEST_F(ServiceCommands, TimeOutKillsTheWholeProcessTree) {
  std::string pid_file = Scratch("child.pid");
  std::string command = "sleep 60 & echo $! > " + pid_file + "; echo started; wait";
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(fso_.SyncCreateProcess(command, 300));
  EXPECT_EQ(fso_.ErrCode(), 9003);
  EXPECT_EQ(fso_.ErrDescription(), "Request time out");
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
  EXPECT_EQ(output_.All(), "started\n");
  pid_t child = std::atoi(ReadFile(pid_file).c_str());
  ASSERT_GT(child, 0);
  EXPECT_TRUE(ProcessEnds(child, 10000));
  // The session goes on.
  EXPECT_TRUE(fso_.SyncCreateProcess("echo again", 10000));
}

TEST_F(ServiceCommands, AccountWithoutCommandsGetsNotStarted) {
  RCFSO reader;
  ASSERT_TRUE(service_.ConnectClient(reader, "reader", kReaderPassword));
  EXPECT_FALSE(reader.SyncCreateProcess("echo no", 10000));
  EXPECT_EQ(reader.ErrCode(), 9001);
  EXPECT_EQ(reader.ErrDescription(), "Create process fail");
}

TEST_F(ServiceCommands, ClientThatLeavesEndsItsCommand) {
  std::string pid_file = Scratch("shell.pid");
  RawClient client;
  ASSERT_TRUE(client.Connect(service_.port()));
  auto login = client.Login("operator", kOperatorPassword);
  ASSERT_TRUE(login && login->success);
  std::string command = "echo $$ > " + pid_file + "; echo ready; sleep 60";
  auto block = pelmora::admin::BuildCommandRequest(command, 0);
  ASSERT_TRUE(client.SendFramed(
      pelmora::admin::BuildSizeMessage(pelmora::admin::CommandRequestTotal(command))));
  ASSERT_TRUE(client.Send(block));
  auto ready = client.ReadFramed();  // the shell has written its pid once "ready" comes
  ASSERT_TRUE(ready.has_value());
  client.Close();
  pid_t shell = std::atoi(ReadFile(pid_file).c_str());
  ASSERT_GT(shell, 0);
  EXPECT_TRUE(ProcessEnds(shell, 10000));
}

}  // namespace
}  // namespace pelmorad::testing
