// `pelmora admin exec`: the extended command exchange when the service speaks it (exit status,
// standard error apart, standard input, bytes as they are), the plain command exchange otherwise.
#include <limits>
#include <string>
#include <string_view>

#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/common/codepage.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/common/error_texts.h"
#include "tools/pelmora/admin_requests.h"

namespace pelmora_tool {
namespace {

using pelmora::admin::ExecExit;
using pelmora::admin::ExecOutcome;
using pelmora::admin::RCFSO;

constexpr int32_t kCommandMargin = 1000;  // the session waits this much past the command
constexpr int32_t kOverflow = 6;
constexpr int32_t kSocketTimeOut = 10060;

// Passes each piece of a plain command's output on as it arrives.
class OutputForwarder : public pelmora::admin::RCFSOEvents {
 public:
  OutputForwarder(RCFSO& fso, HostOutput& output) : fso_(fso), output_(output) {
    fso_.AddEventSink(this);
  }
  ~OutputForwarder() override { fso_.RemoveEventSink(this); }
  OutputForwarder(const OutputForwarder&) = delete;
  OutputForwarder& operator=(const OutputForwarder&) = delete;
  void CommandOutput(std::string& text) override { output_.Write(text); }

 private:
  RCFSO& fso_;
  HostOutput& output_;
};

// The tool's exit status for a command that did not end, by the session's error.
int CommandStatus(int32_t code) {
  switch (code) {
    case pelmora::errors::kProcessNotStarted:
      return kExitNotStarted;
    case pelmora::errors::kProcessEndedAbnormally:
      return kExitAbnormal;
    case pelmora::errors::kProcessTimedOut:
    case kSocketTimeOut:
      return kExitTimedOut;
    default:
      return code >= 10000 && code < 12000 ? kExitConnect : kExitFailed;
  }
}

// `word` as the shell reads it back: unchanged when it holds only safe characters, otherwise
// in single quotes.
std::string ShellQuote(std::string_view word) {
  constexpr std::string_view kSafe =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_@%+=:,./-";
  if (!word.empty() && word.find_first_not_of(kSafe) == std::string_view::npos) {
    return std::string(word);
  }
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string PlainCommandLine(const ExecArgs& args) {
  if (args.words.size() == 1) return args.words.front();
  std::string line;
  for (const std::string& word : args.words) line += (line.empty() ? "" : " ") + ShellQuote(word);
  return line;
}

int RunExtended(HostSession& session, const ExecArgs& args) {
  pelmora::admin::RemoteCommand command;
  if (args.words.size() == 1) {
    command.command_line = args.words.front();
  } else {
    command.arguments = args.words;
  }
  command.timeout = args.timeout_ms;
  pelmora::admin::RemoteCommandIo io;
  io.input_fd = args.forward_input && !session.Options().fleet ? 0 : -1;
  HostOutput& output = session.Output();
  io.output = [&output](std::span<const uint8_t> bytes) {
    output.Write(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  };
  io.error = [&output](std::span<const uint8_t> bytes) {
    output.WriteError(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  };
  ExecExit exit;
  if (!session.Fso().RunCommand(command, io, exit)) {
    int32_t code = session.Fso().ErrCode();
    bool refused = code != pelmora::errors::kInvalidDataSize && (code < 10000 || code >= 12000);
    return session.FailFromClient(refused ? kExitNotStarted : CommandStatus(code));
  }
  if (exit.outcome == ExecOutcome::kTimedOut) {
    return session.Fail(kExitTimedOut, {pelmora::errors::kProcessTimedOut, "Request time out"});
  }
  output.RemoteStatus(exit.ShellStatus());
  return exit.ShellStatus();
}

// The plain exchange: the session waits for the command's time-out plus a margin (without limit
// when the command has none) and gets its own time-out back afterwards.
int RunPlain(HostSession& session, const ExecArgs& args) {
  std::string line = PlainCommandLine(args);
  if (pelmora::AnsiToUtf8(pelmora::Utf8ToAnsi(line)) != line) {
    return session.Fail(kExitUsage, {0, "the command line holds characters that the service's "
                                        "code page cannot carry, and the service has only the "
                                        "plain command exchange: nothing was sent"});
  }
  RCFSO& fso = session.Fso();
  OutputForwarder forwarder(fso, session.Output());
  const int32_t kept = fso.timeout();
  fso.set_timeout(args.timeout_ms == 0 ? 0 : args.timeout_ms + kCommandMargin);
  bool ended = fso.SyncCreateProcess(line, args.timeout_ms);
  fso.set_timeout(kept);
  if (!ended) return session.FailFromClient(CommandStatus(fso.ErrCode()));
  session.Output().RemoteStatus(std::nullopt);
  return session.Fail(kExitFailed, {0, "the command ended, but the service does not report exit "
                                       "statuses: the status is unknown"});
}

}  // namespace

int Exec(HostSession& session, const ExecArgs& args) {
  if (args.timeout_ms < 0 ||
      args.timeout_ms > std::numeric_limits<int32_t>::max() - kCommandMargin) {
    return session.Fail(kExitUsage, {kOverflow, std::string(pelmora::RuntimeErrorText(kOverflow)
                                                                .value_or("Overflow"))});
  }
  // The built-in account runs commands only with the access code; nothing is sent without it.
  if (session.Secrets().account.empty() &&
      session.Secrets().access_code != pelmora::admin::internal::BuiltInAccessCode()) {
    return session.Fail(kExitUsage, {0, "the command access code was refused"});
  }
  int32_t version = session.Fso().ExtendedCommandVersion();
  if (session.Fso().ErrCode() != 0) return session.FailFromClient(kExitConnect);
  return version >= 1 ? RunExtended(session, args) : RunPlain(session, args);
}

}  // namespace pelmora_tool
