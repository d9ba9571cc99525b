// The extended command exchange against the real service: exit statuses and signals, the
// time-out, standard input streamed in, standard output and standard error apart and byte-exact,
// UTF-8 command lines and argument vectors, and a client that stops reading.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "pelmora/admin/rcfso.h"
#include "tests/service/raw_client.h"
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
    ASSERT_TRUE(service_.ConnectClient(fso_, "operator", kOperatorPassword));
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
    return Run(RemoteCommand{.command_line = std::move(line), .arguments = {}, .timeout = timeout});
  }

  ServiceProcess service_;
  RCFSO fso_;
};

TEST_F(ExecExtension, ServiceAnnouncesItsVersionAndStaysInStep) {
  EXPECT_EQ(fso_.ExtendedCommandVersion(), 3);
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
  ASSERT_TRUE(service_.ConnectClient(reader, "reader", kReaderPassword));
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

TEST_F(ExecExtension, TimeOutKillsProcessesThatLeftTheGroupInBothForms) {
  const std::string pid_file = service_.folder() + "/detached.pid";
  // A process that leaves the command's group, writes its pid and outlives the command's shell.
  const std::string detach = "setsid sh -c 'echo $$ > " + pid_file + "; exec sleep 60' & while [ ! -s " +
                             pid_file + " ]; do sleep 0.05; done; sleep 60";
  const RemoteCommand forms[] = {
      {.command_line = detach, .arguments = {}, .timeout = 1000},
      {.command_line = "", .arguments = {"sh", "-c", detach}, .timeout = 1000},
  };
  for (const RemoteCommand& form : forms) {
    SCOPED_TRACE(form.arguments.empty() ? "command line" : "argument vector");
    ::unlink(pid_file.c_str());
    Collected result = Run(form);
    ASSERT_TRUE(result.ok) << fso_.ErrDescription();
    EXPECT_EQ(result.exit.outcome, ExecOutcome::kTimedOut);
    pid_t detached = std::atoi(ReadFile(pid_file).c_str());
    ASSERT_GT(detached, 0);
    EXPECT_TRUE(ProcessEnds(detached, 10000));
    if (!ProcessEnds(detached, 0)) ::kill(detached, SIGKILL);
  }
}

using pelmora::admin::BuildExecFrame;
using pelmora::admin::ExecFrameKind;

// A client speaking the stream frames itself: what the service does with frames the library's
// client never sends.
class ExecStreamPeer : public ExecExtension {
 protected:

  // Logs in, sends the run request for `line` and reads the start reply.
  void Start(const std::string& line) {
    ASSERT_TRUE(raw_.Connect(service_.port()));
    auto login = raw_.Login("operator", kOperatorPassword);
    ASSERT_TRUE(login && login->success);
    auto code = static_cast<pelmora::admin::RequestCode>(pelmora::admin::kExecRunCode);
    ASSERT_TRUE(raw_.Request(code, pelmora::admin::ExecRequestArguments({.command_line = line})));
    auto started = raw_.ReadResult();
    ASSERT_TRUE(started && started->success);
  }
  bool Grant(int32_t bytes) {
    return raw_.Send(pelmora::admin::BuildExecGrant(ExecFrameKind::kGrant, bytes));
  }
  // The frames the service sends up to and including its exit frame.
  // The frames the service sends up to and including the first of kind `last`.
  std::vector<pelmora::admin::ExecFrame> ReadUpTo(ExecFrameKind last) {
    std::vector<pelmora::admin::ExecFrame> frames;
    while (frames.empty() || frames.back().kind != last) {
      std::optional<Bytes> bytes = raw_.Read(reader_.Wanted());
      if (!bytes) break;
      reader_.Append(*bytes);
      while (auto frame = reader_.Next()) frames.push_back(std::move(*frame));
    }
    return frames;
  }
  // True once the audit line of the run request says how the command ended.
  bool Audited(const std::string& text) {
    return service_.ErrorOutput().find("code=41 path=\"" + text) != std::string::npos;
  }

  RawClient raw_;
  pelmora::admin::ExecFrameReader reader_{pelmora::admin::ExecPeer::kService};
};

TEST_F(ExecStreamPeer, ProtocolBreachesEndTheSessionAndKillTheCommand) {
  struct Case {
    const char* what;
    std::function<void(RawClient&)> breach;
  };
  const Bytes piece(65536, 'x');
  const Case cases[] = {
      // 256 KiB of window plus what the pipe of a command that never reads takes in.
      {"input beyond the window",
       [&](RawClient& raw) {
         for (int i = 0; i < 8 && raw.Send(BuildExecFrame(ExecFrameKind::kInput, piece)); ++i) {
         }
       }},
      {"a reserved byte", [](RawClient& raw) { raw.Send(Bytes{1, 1, 0, 0, 1, 0, 0, 0, 'x'}); }},
      {"input after its end",
       [](RawClient& raw) {
         raw.Send(BuildExecFrame(ExecFrameKind::kInputEnd, {}));
         raw.Send(BuildExecFrame(ExecFrameKind::kInput, Bytes{'x'}));
       }},
      {"a frame of the service's kind",
       [](RawClient& raw) { raw.Send(BuildExecFrame(ExecFrameKind::kOutput, Bytes{'x'})); }},
  };
  for (const Case& c : cases) {
    raw_.Close();
    Start("sleep 60");
    Grant(4096);
    c.breach(raw_);
    EXPECT_TRUE(raw_.WaitForClose()) << c.what;
  }
  // Each session's audit line was written before its connection closed.
  std::string audit = service_.ErrorOutput();
  std::size_t killed = 0;
  for (std::size_t at = 0; (at = audit.find("path=\"sleep 60 (signal 9)\" result=1", at)) !=
                           std::string::npos;
       ++at) {
    ++killed;
  }
  EXPECT_EQ(killed, std::size(cases));
}

TEST_F(ExecStreamPeer, DoneBeforeTheExitCancelsAndTheSessionGoesOn) {
  Start("echo $$; sleep 60");
  Grant(4096);
  ASSERT_FALSE(ReadUpTo(ExecFrameKind::kOutput).empty());  // the shell runs
  raw_.Send(BuildExecFrame(ExecFrameKind::kDone, {}));
  std::vector<pelmora::admin::ExecFrame> frames = ReadUpTo(ExecFrameKind::kExit);
  ASSERT_FALSE(frames.empty());
  EXPECT_EQ(pelmora::admin::ParseExecExit(frames.back().payload),
            (ExecExit{ExecOutcome::kSignalled, 9}));
  ASSERT_TRUE(raw_.RequestPath(pelmora::admin::RequestCode::kFolderExists, "C:\\"));
  auto reply = raw_.ReadResult();
  EXPECT_TRUE(reply && reply->success);
  EXPECT_TRUE(Audited("echo $$; sleep 60 (signal 9)\" result=0"));
}

}  // namespace
}  // namespace pelmorad::testing
