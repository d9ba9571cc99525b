// `pelmora admin exec` as a process against the real pelmorad: output streams, the remote status,
// every byte of both streams, and standard input.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/cli/cli_service_fixture.h"

namespace pelmora_cli_test {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
namespace fs = std::filesystem;

TEST_F(CliServiceTest, ExecStreamsOutputAndReportsHowTheCommandEnded) {
  ChildProcess::Result result = Admin({"--account", "operator", "exec", "echo one; echo two"});
  if (service_.ErrorOutput().find("command lines are not available") != std::string::npos) {
    GTEST_SKIP() << "this pelmorad runs no command lines yet";
  }
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "one\ntwo\n");
  ChildProcess::Result slow = Admin({"exec", "--timeout", "300", "sleep 5"});
  EXPECT_EQ(slow.status, 255);
  EXPECT_EQ(slow.err, "pelmora: 127.0.0.1: 9003 Request time out\n");
}

TEST_F(CliServiceTest, ExecExitsWithTheRemoteStatusAsSshDoes) {
  struct Case {
    const char* line;
    int status;
  };
  for (const Case& c : {Case{"true", 0}, Case{"false", 1}, Case{"exit 3", 3},
                        Case{"exit 255", 255}, Case{"kill -9 $$", 137},
                        Case{"ls /no/such/folder 2>/dev/null", 2}}) {
    ChildProcess::Result result = Admin({"exec", c.line});
    EXPECT_EQ(result.status, c.status) << c.line;
    EXPECT_EQ(result.err, "") << c.line;
  }
  // ssh-style scripts: the status decides.
  EXPECT_EQ(Admin({"exec", "test -d /"}).status, 0);
  EXPECT_EQ(Admin({"exec", "test -f /no/such/file"}).status, 1);
}

TEST_F(CliServiceTest, ExecKeepsEveryByteAndTheStreamsApart) {
  std::ifstream program("/bin/true", std::ios::binary);
  std::string expected(std::istreambuf_iterator<char>(program), {});
  ChildProcess::Result binary = Admin({"exec", "cat /bin/true"});
  EXPECT_EQ(binary.status, 0);
  EXPECT_TRUE(binary.out == expected) << binary.out.size() << " of " << expected.size();
  ChildProcess::Result split = Admin({"exec", "echo out; echo err >&2; exit 4"});
  EXPECT_EQ(split.status, 4);
  EXPECT_EQ(split.out, "out\n");
  EXPECT_EQ(split.err, "err\n");
  ChildProcess::Result vector = Admin({"exec", "--", "printf", "%s|", "a  b", "Привет 日本 €"});
  EXPECT_EQ(vector.status, 0) << vector.err;
  EXPECT_EQ(vector.out, "a  b|Привет 日本 €|");
  ChildProcess::Result line = Admin({"exec", "printf '%s' 'Привет *?'"});
  EXPECT_EQ(line.out, "Привет *?");
}

TEST_F(CliServiceTest, ExecForwardsStandardInputUnlessTold) {
  std::string input(300000, '\0');
  std::mt19937 random(11);
  for (char& c : input) c = static_cast<char>(random());
  std::ofstream(Local("stdin.bin"), std::ios::binary) << input;
  std::vector<std::string> args = {"admin", "--host", "127.0.0.1", "--port",
                                   std::to_string(service_.port()), "exec", "cat"};
  ChildProcess::Result piped =
      ChildProcess(args, env_, Attach::kPipes, "", Local("stdin.bin")).Finish(kLimit);
  EXPECT_EQ(piped.status, 0) << piped.err;
  EXPECT_TRUE(piped.out == input) << piped.out.size();
  args.insert(args.end() - 1, "-n");
  ChildProcess::Result ignored =
      ChildProcess(args, env_, Attach::kPipes, "", Local("stdin.bin")).Finish(kLimit);
  EXPECT_EQ(ignored.status, 0) << ignored.err;
  EXPECT_EQ(ignored.out, "");
}

}  // namespace
}  // namespace pelmora_cli_test
