// The tool's commands that need no administration service: usage mistakes named with what was
// meant, version and help, the http transfer's progress on a terminal, and following the log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "pelmora/common/system.h"
#include "pelmora/testing/web_server.h"
#include "tests/cli/child_process.h"
#include "tests/cli/cli_scripted_support.h"

namespace pelmora_cli_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using scripted::BaseEnv;
using scripted::kLimit;

TEST(CliScripted, LogTailFollowsTheDaysFileAsItGrows) {
  std::string root = ::testing::TempDir() + "pelmora-follow-" + std::to_string(::getpid());
  std::string day = pelmora::CurrentLocalTime().Format("yyyymmdd");
  std::filesystem::create_directories(root + "/" + day.substr(0, 6));
  std::string file = root + "/" + day.substr(0, 6) + "/" + day + ".log";
  std::ofstream(file, std::ios::binary) << "2009-03-14 08:05:09,I,PC,[A:B],first\r\n";
  ChildProcess tail({"log", "tail", "-f", "--root", root}, BaseEnv());
  EXPECT_TRUE(tail.WaitForOutput("first\n", kLimit));
  std::ofstream(file, std::ios::binary | std::ios::app)
      << "2009-03-14 08:05:10,I,PC,[A:B],second\r\n";
  EXPECT_TRUE(tail.WaitForOutput("first\n2009-03-14 08:05:10,I,PC,[A:B],second\n", kLimit));
  std::filesystem::remove_all(root);
}

}  // namespace
}  // namespace pelmora_cli_test

namespace pelmora_cli_test {
namespace {

struct MistakeCase {
  std::vector<std::string> args;
  std::string err;
};

class CliMistakes : public ::testing::TestWithParam<MistakeCase> {};

TEST_P(CliMistakes, NameTheCommandAndWhatWasMeant) {
  ChildProcess::Result result = ChildProcess(GetParam().args, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, GetParam().err);
  EXPECT_EQ(result.out, "");
}

const char kAdminCommands[] =
    "exec, time, approot, path, sysdir, printq, version, same-machine, exists, cp, mv, rm, rmdir, "
    "mkdir, touch, ls, stat, get, put, fetch, keygen";

INSTANTIATE_TEST_SUITE_P(
    CliScripted, CliMistakes,
    ::testing::Values(
        MistakeCase{{"crypt"},
                    "pelmora: no command \"crypt\"; did you mean crypto?\n"
                    "pelmora: the commands of pelmora: demo, crypto, sql, tasks, zip, unzip, "
                    "http, admin, log, help\n"},
        MistakeCase{{"admin", "tim"},
                    std::string("pelmora: admin: no command \"tim\"; did you mean time?\n"
                                "pelmora: the commands of pelmora admin: ") +
                        kAdminCommands + "\n"},
        MistakeCase{{"admin"},
                    std::string("pelmora: admin: a command is needed: ") + kAdminCommands + "\n"},
        MistakeCase{{"admin", "--hots", "a,b", "time"},
                    "pelmora: admin time: no option --hots; did you mean --hosts?\n"
                    "pelmora: see pelmora admin time --help\n"},
        MistakeCase{{"admin", "exec", "ls", "-la"},
                    "pelmora: admin exec: no option -la\n"
                    "pelmora: options of the remote command go after \"--\": "
                    "pelmora admin exec -- COMMAND -la\n"},
        MistakeCase{{"admin", "ls", "C:\\", "extra"},
                    "pelmora: admin ls: unexpected argument \"extra\"; see pelmora admin ls "
                    "--help\n"},
        MistakeCase{{"help", "admin", "lss"},
                    std::string("pelmora: admin: no command \"lss\"; did you mean ls?\n"
                                "pelmora: the commands of pelmora admin: ") +
                        kAdminCommands + "\n"},
        MistakeCase{{"admin", "ls", "-x", "C:\\"},
                    "pelmora: admin ls: no option -x\npelmora: see pelmora admin ls --help\n"},
        MistakeCase{{"admin", "--port", "0", "time"},
                    "pelmora: admin time: --port: Value 0 not in range 1 to 65535; see pelmora "
                    "admin time --help\n"}));

TEST(CliScripted, VersionAndHelpOfOneCommand) {
  ChildProcess::Result version = ChildProcess({"--version"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.out,
              ::testing::MatchesRegex("pelmora [0-9]+\\.[0-9]+\\.[0-9]+ \\(commit ([0-9a-f]+|unknown), "
                                      "[A-Za-z]+ build\\)\n"));
  ChildProcess::Result help = ChildProcess({"help", "admin", "ls"}, BaseEnv()).Finish(kLimit);
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("Usage: pelmora admin ls [OPTIONS] FOLDER"));
  EXPECT_THAT(help.out, HasSubstr("-h,--human-readable"));
  EXPECT_EQ(help.out, ChildProcess({"admin", "ls", "--help"}, BaseEnv()).Finish(kLimit).out);
}

TEST(CliScripted, HttpShowsSizeAndRateOnATerminalButNotOverTheBody) {
  pelmora::testing::WebServer web;
  web.WriteDocument("bar.bin", std::string(300000, 'b'));
  std::string file = web.DocumentRoot() + "/../bar-out.bin";
  ChildProcess::Result to_file =
      ChildProcess({"http", "get", web.HttpUrl("/bar.bin"), "-o", file}, BaseEnv(),
                   Attach::kTerminal)
          .Finish(kLimit);
  EXPECT_EQ(to_file.status, 0) << to_file.out;
  EXPECT_THAT(to_file.out, HasSubstr("100%"));
  EXPECT_THAT(to_file.out, HasSubstr("/ 293.0 KiB"));
  EXPECT_THAT(to_file.out, HasSubstr("/s"));
  ChildProcess::Result to_terminal =
      ChildProcess({"http", "get", web.HttpUrl("/small.txt")}, BaseEnv(), Attach::kTerminal)
          .Finish(kLimit);
  EXPECT_EQ(to_terminal.status, 0);
  EXPECT_THAT(to_terminal.out, Not(HasSubstr("%")));
  EXPECT_THAT(to_terminal.out, HasSubstr("small file"));
}

}  // namespace
}  // namespace pelmora_cli_test
