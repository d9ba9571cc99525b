// Requests that run programs: command lines (code 20), their output streamed as it comes, and
// the print queue (code 14).
#include <unistd.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <memory>
#include <optional>

#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/child_process.h"
#include "pelmora/common/error.h"
#include "pelmorad/audit.h"
#include "pelmorad/blocking.h"
#include "pelmorad/command_output.h"
#include "pelmorad/command_tree.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;

namespace {

// One running command, shared with the handlers that may end it.
struct RunningCommand {
  std::optional<pelmora::ChildProcess> child;
  int start_error = 0;
  bool finished = false;  // reaped: its process group id may be someone else's now
  bool timed_out = false;
  bool client_gone = false;
  CommandCount* slot = nullptr;  // the service's running-command count while this one holds a place

  void Kill() {
    if (!finished && child) KillCommandTree(*child);
  }
  // Gives the command's place back (once), as soon as its shell has ended.
  void ReleaseSlot() {
    if (slot != nullptr) slot->Give();
    slot = nullptr;
  }
};

constexpr std::size_t kPrintQueueBytes = 64 * 1024;
constexpr auto kDrainAfterExit = std::chrono::seconds(1);

// The descriptors and timers of one running command, shared with their handlers (which may run
// after the session has moved on).
struct CommandIo {
  CommandIo(const asio::any_io_executor& executor, const pelmora::ChildProcess& child)
      : output(executor, ::dup(child.output_fd())),
        exit_watch(executor, ::dup(child.exit_fd())),
        deadline(executor),
        drain(executor, asio::steady_timer::time_point::max()) {}

  asio::posix::stream_descriptor output;
  asio::posix::stream_descriptor exit_watch;
  asio::steady_timer deadline;
  asio::steady_timer drain;
  bool output_ended = false;  // set once the output is forwarded to its end
};

pelmora::ChildSpec SpecFor(const Config& config, const Account& account, std::string command) {
  pelmora::ChildSpec launch = TrackedCommand(config.shell, std::move(command));
  launch.working_folder = account.working_folder;
  launch.run_as = account.run_as;
  return launch;
}

int32_t StatusFor(const RunningCommand& command, const pelmora::ChildExit& exit) {
  if (command.timed_out) return pelmora::admin::kProcessTimedOut;
  return exit.signalled ? pelmora::admin::kProcessEndedAbnormally
                        : pelmora::admin::kProcessEndedNormally;
}

// Sends the output as command output replies, cut only between whole UTF-8 characters.
asio::awaitable<bool> ForwardOutput(SessionChannel& channel,
                                    asio::posix::stream_descriptor& output) {
  std::string pending;
  std::vector<char> buffer(pelmora::admin::kMaxCommandOutput);
  while (true) {
    asio::error_code error;
    std::size_t got =
        co_await output.async_read_some(asio::buffer(buffer.data(), buffer.size() - pending.size()),
                                        asio::redirect_error(asio::use_awaitable, error));
    if (error) break;
    pending.append(buffer.data(), got);
    std::size_t whole = WholeUtf8Prefix(pending);
    if (whole == 0) continue;
    std::vector<uint8_t> reply =
        pelmora::admin::BuildCommandOutputReply(std::string_view(pending).substr(0, whole));
    pending.erase(0, whole);
    if (!co_await channel.SendMessage(reply)) co_return false;
  }
  if (pending.empty()) co_return true;
  std::vector<uint8_t> reply = pelmora::admin::BuildCommandOutputReply(pending);
  co_return co_await channel.SendMessage(reply);
}

// Forwards a running command's output until it ends, is killed or the client goes; false when
// the connection is gone.
asio::awaitable<bool> StreamCommand(RequestScope& request, std::shared_ptr<RunningCommand> command,
                                    int32_t timeout) {
  request.channel.HoldIdleTimer();
  auto io = std::make_shared<CommandIo>(request.channel.socket().get_executor(), *command->child);
  if (timeout > 0) {
    io->deadline.expires_after(std::chrono::milliseconds(timeout));
    io->deadline.async_wait([command](const asio::error_code& error) {
      if (error || command->finished) return;
      command->timed_out = true;
      command->Kill();
    });
  }
  request.channel.socket().async_wait(
      asio::socket_base::wait_read, [command](const asio::error_code& error) {
        if (error || command->finished) return;
        command->client_gone = true;  // a client never sends while its command runs
        command->Kill();
      });
  io->exit_watch.async_wait(asio::posix::descriptor_base::wait_read,
                            [io, command](const asio::error_code& error) {
                              if (error) return;
                              command->ReleaseSlot();
                              // Output already at its end: nothing to drain, and a wait armed
                              // now would keep the command's descriptors for its whole length.
                              if (io->output_ended) return;
                              io->drain.expires_after(kDrainAfterExit);
                              io->drain.async_wait([io](const asio::error_code& drained) {
                                // a grandchild that left the group may still hold the pipe
                                if (!drained) io->output.cancel();
                              });
                            });
  bool connected = co_await ForwardOutput(request.channel, io->output);
  asio::error_code ignored;
  io->output_ended = true;
  io->drain.cancel();
  if (!connected) {
    // The client is gone or stopped reading until its session was closed: the command ends
    // with it rather than run on unseen.
    command->client_gone = true;
    command->Kill();
  }
  // The shell may close its output before it ends: wait for the exit itself, still bounded by
  // the time-out and by the client leaving.
  if (!command->child->TryReap()) {
    co_await io->exit_watch.async_wait(asio::posix::descriptor_base::wait_read,
                                       asio::redirect_error(asio::use_awaitable, ignored));
  }
  command->finished = true;
  io->deadline.cancel();
  io->exit_watch.cancel(ignored);
  request.channel.socket().cancel(ignored);
  co_return connected;
}

}  // namespace

asio::awaitable<bool> HandleCommand(RequestScope& request, const RequestBlock& block) {
  std::optional<pelmora::admin::CommandRequest> parsed = pelmora::admin::ParseCommandRequest(block);
  int32_t refusal = !parsed                     ? kInvalidParameter
                    : !request.account.commands ? kAccessDenied
                    : !request.running_commands.TryTake(request.limits().commands)
                        ? kNotEnoughMemory
                        : kSuccess;
  if (refusal != kSuccess) {
    request.Audit(block.code, parsed ? parsed->command : "", refusal);
    co_return co_await Refuse(request.channel, block, refusal);
  }
  auto command = std::make_shared<RunningCommand>();
  pelmora::ChildSpec launch = SpecFor(request.runtime.config, request.account, parsed->command);
  command->start_error = co_await request.RunOnPool([&] {
    try {
      command->child.emplace(pelmora::ChildProcess::Start(launch));
      return 0;
    } catch (const pelmora::Error& error) {
      return static_cast<int>(error.Number());
    }
  });
  if (command->start_error != 0) {
    request.running_commands.Give();
    request.Audit(block.code, parsed->command, command->start_error);
    co_return co_await Refuse(request.channel, block, command->start_error);
  }
  command->slot = &request.running_commands;
  request.command_group = command->child->pid();
  bool connected = co_await StreamCommand(request, command, parsed->timeout);
  request.command_group = 0;
  command->ReleaseSlot();
  pelmora::ChildExit exit = co_await request.RunOnPool([&] { return command->child->Wait(); });
  int32_t status = StatusFor(*command, exit);
  request.Audit(block.code,
                parsed->command + (exit.signalled ? " (signal " : " (exit ") +
                    std::to_string(exit.code) + ")",
                command->client_gone ? kInvalidFunction : status);
  if (!connected || command->client_gone) co_return false;
  std::vector<uint8_t> reply = pelmora::admin::BuildCommandStatusReply(status);
  co_return co_await request.channel.SendMessage(reply);
}

asio::awaitable<bool> HandlePrintQueue(RequestScope& request, const RequestBlock& block) {
  const std::string& command_line = request.runtime.config.print_queue_command;
  if (!request.account.commands) {
    request.Audit(block.code, "print queue", kAccessDenied);
    co_return co_await Refuse(request.channel, block, kAccessDenied);
  }
  std::string text;
  if (!command_line.empty()) {
    pelmora::ChildSpec launch = SpecFor(request.runtime.config, request.account, command_line);
    auto limit = std::chrono::seconds(request.limits().print_queue_seconds);
    std::optional<std::string> output =
        co_await request.RunOnPool([&] { return RunForOutput(launch, kPrintQueueBytes, limit); });
    text = output.value_or("");
  }
  request.Audit(block.code, "print queue", kSuccess);
  std::vector<uint8_t> data = pelmora::admin::EncodeWireText(text);
  co_return co_await request.channel.SendSized(data);
}

}  // namespace pelmorad
