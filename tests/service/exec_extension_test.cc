// The extended command exchange against the real service: exit statuses and signals, the
// time-out, standard input streamed in, standard output and standard error apart and byte-exact,
// UTF-8 command lines and argument vectors, and a client that stops reading.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "pelmora/admin/rcfso.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::ExecExit;
using pelmora::admin::ExecOutcome;
using pelmora::admin::RCFSO;
using pelmora::admin::RemoteCommand;
using pelmora::admin::RemoteCommandIo;

// 64-bit FNV-1a, fed piece by piece.
struct Checksum {
  uint64_t value = 1469598103934665603ULL;
  void Add(std::span<const uint8_t> bytes) {
    for (uint8_t byte : bytes) value = (value ^ byte) * 1099511628211ULL;
  }
};

struct Collected {
  std::string output;
  std::string error;
  ExecExit exit;
  bool ok = false;
};

class ExecExtension : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    ASSERT_TRUE(fso_.Connect("127.0.0.1", service_.port(), "operator", kOperatorPassword, false));
    fso_.set_timeout(20000);
  }

  Collected Run(RemoteCommand command, std::string_view input = "") {
    Collected result;
    RemoteCommandIo io;
    io.input = input;
    io.output = [&](std::span<const uint8_t> b) { result.output.append(b.begin(), b.end()); };
    io.error = [&](std::span<const uint8_t> b) { result.error.append(b.begin(), b.end()); };
    result.ok = fso_.RunCommand(command, io, result.exit);
    return result;
  }
  Collected RunLine(std::string line, int32_t timeout = 20000) {
    return Run(RemoteCommand{.command_line = std::move(line), .timeout = timeout});
  }

  ServiceProcess service_;
  RCFSO fso_;
};

TEST_F(ExecExtension, ServiceAnnouncesItsVersionAndStaysInStep) {
  EXPECT_EQ(fso_.ExtendedCommandVersion(), 1);
  EXPECT_EQ(fso_.ErrCode(), 0);
  EXPECT_EQ(RunLine("echo one").output, "one\n");
  EXPECT_EQ(RunLine("echo two").output, "two\n");
  EXPECT_TRUE(fso_.FolderExists("C:\\"));
}

TEST_F(ExecExtension, ReportsExitStatusesAndSignals) {
  struct Case {
    const char* line;
    ExecOutcome outcome;
    int code;
    int shell_status;
  };
  const Case cases[] = {
      {"exit 0", ExecOutcome::kExited, 0, 0},       {"false", ExecOutcome::kExited, 1, 1},
      {"exit 3", ExecOutcome::kExited, 3, 3},       {"exit 255", ExecOutcome::kExited, 255, 255},
      {"kill -TERM $$", ExecOutcome::kSignalled, 15, 143},
      {"ls /nonexistent-folder", ExecOutcome::kExited, 2, 2},
  };
  for (const Case& c : cases) {
    Collected result = RunLine(c.line);
    ASSERT_TRUE(result.ok) << c.line << ": " << fso_.ErrDescription();
    EXPECT_EQ(result.exit, (ExecExit{c.outcome, c.code})) << c.line;
    EXPECT_EQ(result.exit.ShellStatus(), c.shell_status) << c.line;
  }
}

TEST_F(ExecExtension, TimeOutKillsTheCommandAndSaysSo) {
  Collected result = RunLine("echo started; sleep 60", 300);
  ASSERT_TRUE(result.ok) << fso_.ErrDescription();
  EXPECT_EQ(result.exit.outcome, ExecOutcome::kTimedOut);
  EXPECT_EQ(result.exit.code, 9);
  EXPECT_EQ(result.output, "started\n");
  EXPECT_EQ(RunLine("echo again").output, "again\n");
}

TEST_F(ExecExtension, StandardErrorStaysApartFromStandardOutput) {
  Collected result = RunLine("echo out; echo err >&2; echo out2; exit 4");
  EXPECT_EQ(result.output, "out\nout2\n");
  EXPECT_EQ(result.error, "err\n");
  EXPECT_EQ(result.exit.ShellStatus(), 4);
}

TEST_F(ExecExtension, BinaryOutputIsByteExact) {
  std::string expected = ReadFile("/bin/true");
  ASSERT_FALSE(expected.empty());
  Collected result = RunLine("cat /bin/true");
  EXPECT_EQ(result.output.size(), expected.size());
  EXPECT_TRUE(result.output == expected);
  EXPECT_EQ(RunLine("printf '\\000\\377\\200\\r\\n'").output, std::string("\0\xFF\x80\r\n", 5));
}

TEST_F(ExecExtension, HundredMebibytesOfInputPassThroughCat) {
  std::string input(100 << 20, '\0');
  uint32_t state = 12345;
  for (char& byte : input) {
    state = state * 1103515245 + 12345;
    byte = static_cast<char>(state >> 24);
  }
  Checksum sent, received;
  sent.Add(std::span(reinterpret_cast<const uint8_t*>(input.data()), input.size()));
  std::size_t received_bytes = 0;
  RemoteCommandIo io;
  io.input = input;
  io.output = [&](std::span<const uint8_t> b) {
    received.Add(b);
    received_bytes += b.size();
  };
  ExecExit exit;
  ASSERT_TRUE(fso_.RunCommand({.command_line = "cat"}, io, exit)) << fso_.ErrDescription();
  EXPECT_EQ(exit, (ExecExit{ExecOutcome::kExited, 0}));
  EXPECT_EQ(received_bytes, input.size());
  EXPECT_EQ(received.value, sent.value);
}

TEST_F(ExecExtension, InputEndsWhenTheCallerHasNoMore) {
  EXPECT_EQ(Run({.command_line = "wc -c"}, "abc").output, "3\n");
  EXPECT_EQ(Run({.command_line = "wc -c"}, "").output, "0\n");
  // A command that never reads its input still ends, and the session goes on.
  Collected ignored = Run({.command_line = "exit 7"}, std::string(1 << 20, 'x'));
  EXPECT_EQ(ignored.exit.ShellStatus(), 7);
  EXPECT_EQ(RunLine("echo next").output, "next\n");
}

TEST_F(ExecExtension, CommandLinesAndArgumentsCarryAnyCharacter) {
  const std::string text = "Привет 日本語 €✓ $HOME *?";
  EXPECT_EQ(RunLine("printf '%s' '" + text + "'").output, text);
  Collected vector = Run({.arguments = {"printf", "%s|", text, "a  b", "'"}});
  ASSERT_TRUE(vector.ok) << fso_.ErrDescription();
  EXPECT_EQ(vector.output, text + "|a  b|'|");
  Collected missing = Run({.arguments = {"no-such-program-here"}});
  EXPECT_FALSE(missing.ok);
  EXPECT_EQ(missing.exit.code, 0);
  EXPECT_EQ(fso_.ErrCode(), 2);
  EXPECT_EQ(RunLine("echo after").output, "after\n");
}

TEST_F(ExecExtension, AccountWithoutCommandsIsRefused) {
  RCFSO reader;
  ASSERT_TRUE(reader.Connect("127.0.0.1", service_.port(), "reader", kReaderPassword, false));
  RemoteCommandIo io;
  ExecExit exit;
  EXPECT_FALSE(reader.RunCommand({.command_line = "echo no"}, io, exit));
  EXPECT_EQ(reader.ErrCode(), 5);
  EXPECT_EQ(reader.ErrDescription(), "Access is denied.");
  EXPECT_FALSE(reader.RunCommand({.command_line = "  "}, io, exit));
  EXPECT_EQ(reader.ErrCode(), 8116);
}

TEST_F(ExecExtension, ClientThatStopsReadingDoesNotStopTheTimeOut) {
  bool first = true;
  bool ended = false;
  RemoteCommandIo io;
  io.window = 4096;
  io.output = [&](std::span<const uint8_t> bytes) {
    if (!first) return;
    first = false;
    // The shell printed its id first; while this callback holds the connection unread, the
    // command floods its output and only the time-out can end it.
    std::string text(bytes.begin(), bytes.end());
    ended = ProcessEnds(std::atoi(text.c_str()), 15000);
  };
  ExecExit exit;
  ASSERT_TRUE(fso_.RunCommand({.command_line = "echo $$; exec yes", .timeout = 300}, io, exit))
      << fso_.ErrDescription();
  EXPECT_TRUE(ended);
  EXPECT_EQ(exit.outcome, ExecOutcome::kTimedOut);
}

}  // namespace
}  // namespace pelmorad::testing
