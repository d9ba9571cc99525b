// The fleet runner with hosts simulated in the process: live prefixed lines, --parallel, the
// reports, exit status and the overall time-out.
#include "tools/pelmora/fleet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <future>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

namespace pelmora_tool {
namespace {

using ::testing::HasSubstr;

// A console over two temporary files, read back after the run.
class CapturedConsole {
 public:
  CapturedConsole() : out_(std::tmpfile()), err_(std::tmpfile()), console_(false, out_, err_) {}
  ~CapturedConsole() {
    std::fclose(out_);
    std::fclose(err_);
  }
  Console& Get() { return console_; }
  std::string Out() { return Read(out_); }
  std::string Err() { return Read(err_); }

 private:
  static std::string Read(std::FILE* file) {
    std::rewind(file);
    std::string text;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;) text.append(buffer, n);
    return text;
  }
  std::FILE* out_;
  std::FILE* err_;
  Console console_;
};

FleetOptions Hosts(const std::string& list) {
  FleetOptions options;
  options.hosts = ParseHostList(list);
  return options;
}

// Hosts named "bad*" fail to connect; the others write two lines in three pieces.
int Simulated(const HostTarget& target, HostOutput& output) {
  if (target.name.rfind("bad", 0) == 0) {
    output.Fail({10061, "refused"});
    return kExitConnect;
  }
  output.Write("hello from ");
  output.Write(target.name + "\nsecond");
  output.Write(" line\n");
  return kExitOk;
}

TEST(Fleet, LiveOutputPrefixesEachLineWithItsHost) {
  CapturedConsole console;
  FleetOutcome outcome = RunFleet(Hosts("web[1-3],bad1"), Simulated, console.Get());
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.abandoned, 0u);
  std::string out = console.Out();
  // Hosts run in parallel, so their lines may interleave; each line is whole and prefixed.
  for (const std::string host : {"web1", "web2", "web3"}) {
    EXPECT_THAT(out, HasSubstr(host + ": hello from " + host + "\n"));
    EXPECT_THAT(out, HasSubstr(host + ": second line\n"));
  }
  EXPECT_THAT(out, ::testing::Not(HasSubstr("4 hosts:")));
  std::string err = console.Err();
  EXPECT_THAT(err, testing::StartsWith("pelmora: bad1: 10061 refused\n"));
  EXPECT_THAT(err, HasSubstr("4 hosts: 3 ok, 1 failed"));
  EXPECT_THAT(err, HasSubstr("bad1  failed        3    "));
}

TEST(Fleet, EveryHostSucceedingGivesStatusZeroAndRecordsInListOrder) {
  CapturedConsole console;
  FleetOutcome outcome = RunFleet(Hosts("a,b:9000,c"), Simulated, console.Get());
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.records.size(), 3u);
  EXPECT_EQ(outcome.records[1].target.Display(), "b:9000");
  EXPECT_EQ(outcome.records[1].port, 9000);
  EXPECT_EQ(outcome.records[2].port, 8002);
}

// The status of a fleet run over `list` with --parallel 3.
int RunThreeAtATime(const std::string& list, const HostRunner& runner) {
  CapturedConsole console;
  FleetOptions options = Hosts(list);
  options.parallel = 3;
  return RunFleet(options, runner, console.Get()).status;
}

TEST(Fleet, NeverRunsMoreHostsAtOnceThanParallel) {
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  auto runner = [&](const HostTarget&, HostOutput&) {
    int now = ++running;
    for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
    }
    std::this_thread::yield();
    --running;
    return kExitOk;
  };
  EXPECT_EQ(RunThreeAtATime("h[1-40]", runner), 0);
  EXPECT_LE(most.load(), 3);
  EXPECT_GE(most.load(), 1);
}

TEST(Fleet, ParallelHostsRunAtTheSameTime) {
  // Each host's command waits until all three have started: hosts run one after the other
  // never meet, and each gives up after the bound.
  std::mutex mutex;
  std::condition_variable all_started;
  int started = 0;
  std::atomic<int> met{0};
  auto runner = [&](const HostTarget&, HostOutput&) {
    std::unique_lock lock(mutex);
    ++started;
    all_started.notify_all();
    if (all_started.wait_for(lock, std::chrono::seconds(30), [&] { return started == 3; })) ++met;
    return kExitOk;
  };
  EXPECT_EQ(RunThreeAtATime("h[1-3]", runner), 0);
  EXPECT_EQ(met.load(), 3);
}

TEST(Fleet, JsonPrintsOneObjectPerHostAndNoTable) {
  CapturedConsole console;
  FleetOptions options = Hosts("web1,bad1");
  options.json = true;
  RunFleet(options, Simulated, console.Get());
  std::istringstream lines(console.Out());
  std::set<std::string> hosts;
  for (std::string line; std::getline(lines, line);) {
    nlohmann::json object = nlohmann::json::parse(line);
    hosts.insert(object["host"].get<std::string>());
    if (object["host"] == "web1") {
      EXPECT_EQ(object["output"], "hello from web1\nsecond line\n");
      EXPECT_TRUE(object["error"].is_null());
    } else {
      EXPECT_EQ(object["error"]["number"], 10061);
      EXPECT_EQ(object["status"], 3);
    }
  }
  EXPECT_EQ(hosts, (std::set<std::string>{"web1", "bad1"}));
  EXPECT_EQ(console.Err(), "");
}

TEST(Fleet, GroupPrintsEachHostAsOneBlock) {
  CapturedConsole console;
  FleetOptions options = Hosts("web1,web2");
  options.group = true;
  RunFleet(options, Simulated, console.Get());
  std::string out = console.Out();
  EXPECT_THAT(out, HasSubstr("=== web1 ===\nhello from web1\nsecond line\n"));
  EXPECT_THAT(out, HasSubstr("=== web2 ===\nhello from web2\nsecond line\n"));
}

TEST(Fleet, OverallTimeOutLeavesSlowHostsBehindAsTimedOut) {
  auto release = std::make_shared<std::promise<void>>();
  std::shared_future<void> released = release->get_future().share();
  auto runner = [released](const HostTarget& target, HostOutput& output) {
    if (target.name == "slow") {
      released.wait();
      output.Write("too late\n");  // the run is closed: dropped
    }
    return kExitOk;
  };
  CapturedConsole console;
  FleetOptions options = Hosts("fast,slow");
  options.overall_timeout_ms = 200;
  FleetOutcome outcome = RunFleet(options, runner, console.Get());
  EXPECT_EQ(outcome.abandoned, 1u);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.records[1].Result(), "timed out");
  EXPECT_EQ(outcome.records[1].status, kExitTimedOut);
  release->set_value();
  EXPECT_THAT(console.Err(), HasSubstr("slow  timed out     6"));
}

// A host left at the overall time-out still gets its --json object, as "timed out".
TEST(Fleet, JsonReportsAHostAbandonedAtTheOverallTimeOut) {
  auto release = std::make_shared<std::promise<void>>();
  std::shared_future<void> released = release->get_future().share();
  auto runner = [released](const HostTarget& target, HostOutput&) {
    if (target.name == "slow") released.wait();
    return kExitOk;
  };
  CapturedConsole console;
  FleetOptions options = Hosts("fast,slow");
  options.overall_timeout_ms = 100;
  options.json = true;
  RunFleet(options, runner, console.Get());
  release->set_value();
  std::istringstream lines(console.Out());
  std::map<std::string, nlohmann::json> objects;
  for (std::string line; std::getline(lines, line);) {
    nlohmann::json object = nlohmann::json::parse(line);
    objects[object["host"].get<std::string>()] = object;
  }
  ASSERT_EQ(objects.size(), 2u);
  EXPECT_EQ(objects["fast"]["result"], "ok");
  EXPECT_EQ(objects["slow"]["result"], "timed out");
  EXPECT_EQ(objects["slow"]["status"], kExitTimedOut);
}

TEST(Fleet, ARunnerThatThrowsCountsAsFailed) {
  CapturedConsole console;
  FleetOutcome outcome = RunFleet(
      Hosts("x"),
      [](const HostTarget&, HostOutput&) -> int { throw std::runtime_error("broken"); },
      console.Get());
  EXPECT_EQ(outcome.records[0].status, kExitFailed);
  EXPECT_THAT(console.Err(), testing::StartsWith("pelmora: x: broken\n"));
}

}  // namespace
}  // namespace pelmora_tool
