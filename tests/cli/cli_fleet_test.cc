// The `pelmora admin` tool over a fleet of scripted hosts: a hosts file with --json and
// --failed-file, live output with host prefixes and the summary, the progress bar only on a
// terminal, and host ranges.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "pelmora/testing/admin_peer.h"
#include "tests/cli/child_process.h"
#include "tests/cli/cli_scripted_support.h"

namespace pelmora_cli_test {
namespace {

using pelmora::testing::Answer;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::TextData;
using ::testing::HasSubstr;
using ::testing::Not;
using scripted::BaseEnv;
using scripted::kLimit;
using scripted::Scratch;

// Two scripted hosts that answer `time`, and one port that refuses.
struct SmallFleet {
  SmallFleet() {
    for (ScriptedPeer* peer : {&a, &b}) {
      ExpectLogin(*peer, true);
      ExpectRequest(*peer).ReplyWith(Answer(TextData("2009-03-14 08:05:09")));
      peer->Start();
    }
    {
      ScriptedPeer gone;
      refused_port = gone.Port();
    }
    hosts_file = Scratch("hosts");
    std::ofstream(hosts_file) << "# two good hosts and a bad one\n"
                              << "127.0.0.1:" << a.Port() << "   # first\n\n"
                              << "127.0.0.1:" << b.Port() << " 127.0.0.1:" << refused_port
                              << "\n";
  }
  std::string Host(int port) const { return "127.0.0.1:" + std::to_string(port); }
  ScriptedPeer a;
  ScriptedPeer b;
  int refused_port = 0;
  std::string hosts_file;
};

TEST(CliScripted, FleetJsonGivesOneObjectPerHostAndListsTheFailedOnes) {
  SmallFleet fleet;
  std::string failed = Scratch("failed");
  ChildProcess::Result result =
      ChildProcess({"admin", "--hosts-file", fleet.hosts_file, "--json", "--failed-file", failed,
                    "time"},
                   BaseEnv())
          .Finish(kLimit);
  EXPECT_EQ(result.status, 1);
  std::istringstream lines(result.out);
  int objects = 0;
  for (std::string line; std::getline(lines, line); ++objects) {
    nlohmann::json host = nlohmann::json::parse(line);
    EXPECT_EQ(host["host"], "127.0.0.1");
    bool refused = host["port"] == fleet.refused_port;
    EXPECT_EQ(host["status"], refused ? 3 : 0);
    EXPECT_EQ(host["result"], refused ? "failed" : "ok");
    EXPECT_EQ(host["output"], refused ? "" : "2009-03-14 08:05:09\n");
    EXPECT_EQ(host["error"].is_null(), !refused);
    if (refused) {
      EXPECT_EQ(host["error"]["number"], 10061);
    }
  }
  EXPECT_EQ(objects, 3);
  std::ifstream list(failed);
  std::string only;
  std::getline(list, only);
  EXPECT_EQ(only, fleet.Host(fleet.refused_port));
}

TEST(CliScripted, FleetLiveOutputPrefixesLinesAndEndsWithTheSummary) {
  SmallFleet fleet;
  ChildProcess::Result result =
      ChildProcess({"admin", "--hosts-file", fleet.hosts_file, "time"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, HasSubstr(fleet.Host(fleet.a.Port()) + ": 2009-03-14 08:05:09\n"));
  EXPECT_THAT(result.out, HasSubstr(fleet.Host(fleet.b.Port()) + ": 2009-03-14 08:05:09\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("3 hosts:")));
  EXPECT_THAT(result.err, HasSubstr("3 hosts: 2 ok, 1 failed"));
  EXPECT_THAT(result.err, HasSubstr("pelmora: " + fleet.Host(fleet.refused_port) + ": 10061 "));
  // Not a terminal: no progress bar.
  EXPECT_THAT(result.err, Not(HasSubstr("hosts,")));
  EXPECT_THAT(result.err, Not(HasSubstr("\r")));
}

TEST(CliScripted, FleetShowsAProgressBarOnATerminalUnlessQuiet) {
  {
    SmallFleet fleet;
    ChildProcess::Result result =
        ChildProcess({"admin", "--hosts-file", fleet.hosts_file, "time"}, BaseEnv(),
                     Attach::kTerminal)
            .Finish(kLimit);
    EXPECT_THAT(result.out, HasSubstr("3/3 hosts, 1 failed"));
    EXPECT_THAT(result.out, HasSubstr("\r\033[K"));
  }
  SmallFleet fleet;
  ChildProcess::Result quiet =
      ChildProcess({"admin", "--hosts-file", fleet.hosts_file, "--quiet", "time"}, BaseEnv(),
                   Attach::kTerminal)
          .Finish(kLimit);
  EXPECT_THAT(quiet.out, HasSubstr(fleet.Host(fleet.a.Port()) + ": 2009-03-14 08:05:09"));
  EXPECT_THAT(quiet.out, HasSubstr("pelmora: " + fleet.Host(fleet.refused_port) + ": 10061 "));
  EXPECT_THAT(quiet.out, Not(HasSubstr("hosts, 1 failed")));
  EXPECT_THAT(quiet.out, Not(HasSubstr("3 hosts:")));
}

TEST(CliScripted, BadHostRangeIsAUsageError) {
  ChildProcess::Result result =
      ChildProcess({"admin", "--hosts", "web[3-1]", "time"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "pelmora: reversed range \"3-1\"\n");
}

}  // namespace
}  // namespace pelmora_cli_test
