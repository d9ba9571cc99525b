// The extended command exchange: the hello request (code 40), answered with the version this
// service speaks, and the run request (code 41), which starts a command line or an argument
// vector with its own standard input and standard error and runs the stream phase on a thread
// of its own (exec_stream.h), so a long command holds no thread of the file-work pool.
#include <signal.h>
#include <unistd.h>

#include <asio/associated_executor.hpp>
#include <asio/async_result.hpp>
#include <asio/dispatch.hpp>
#include <asio/use_awaitable.hpp>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/common/error.h"
#include "pelmorad/blocking.h"
#include "pelmorad/command_tree.h"
#include "pelmorad/exec_stream.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::ExecRequest;
using pelmora::admin::RequestBlock;

namespace {

// Calls `function` on a new thread of its own and yields its result to the awaiting coroutine.
template <typename Function>
auto RunOnOwnThread(Function function) {
  using Result = std::invoke_result_t<Function>;
  auto initiation = [](auto handler, Function work) {
    std::thread([handler = std::move(handler), work = std::move(work)]() mutable {
      Result result = work();
      auto executor = asio::get_associated_executor(handler);
      asio::dispatch(executor,
                     [handler = std::move(handler), result = std::move(result)]() mutable {
                       std::move(handler)(std::move(result));
                     });
    }).detach();
  };
  return asio::async_initiate<const asio::use_awaitable_t<>, void(Result)>(
      std::move(initiation), asio::use_awaitable, std::move(function));
}

// The audit text of a run request: the command line, or the arguments joined by blanks.
std::string AuditText(const ExecRequest& request) {
  if (request.arguments.empty()) return request.command_line;
  std::string text;
  for (const std::string& argument : request.arguments) {
    text += (text.empty() ? "" : " ") + argument;
  }
  return text;
}

std::string OutcomeText(const pelmora::admin::ExecExit& exit) {
  switch (exit.outcome) {
    case pelmora::admin::ExecOutcome::kExited:
      return " (exit " + std::to_string(exit.code) + ")";
    case pelmora::admin::ExecOutcome::kSignalled:
      return " (signal " + std::to_string(exit.code) + ")";
    default:
      return " (timed out)";
  }
}

// A started command and the session socket's descriptor, shared with the stream thread.
struct ExecJob {
  std::optional<pelmora::ChildProcess> child;
  UniqueFd socket_fd;
  ExecStreamLimits limits;
};

// Answers the run request and runs the stream phase until the command's exit frame is sent or
// the client is out of step; false ends the session.
asio::awaitable<bool> StreamExec(RequestScope& request, std::shared_ptr<ExecJob> job,
                                 int32_t timeout, std::string audit_text) {
  if (!co_await request.channel.SendResult(kSuccess)) {
    request.running_commands.Give();
    co_return false;
  }
  request.channel.HoldIdleTimer();
  job->socket_fd.reset(::dup(request.channel.socket().native_handle()));
  job->limits.timeout_ms = timeout;
  job->limits.finish_ms = request.limits().idle_seconds * 1000;
  request.command_group = job->child->pid();
  // The coroutine keeps the job alive while it waits; the lambda holds a plain pointer because
  // GCC 12 mis-copies non-trivial captures of lambdas made inside a coroutine.
  ExecJob* running = job.get();
  ExecStreamResult result;
  try {
    result = co_await RunOnOwnThread([running] {
      return RunExecStream(running->socket_fd.get(), *running->child, running->limits);
    });
  } catch (const std::system_error&) {
    // No thread to serve the command: it is killed and the session ends.
    KillCommandTree(*job->child);
    result.exit = {pelmora::admin::ExecOutcome::kSignalled, SIGKILL};
  }
  request.command_group = 0;
  request.running_commands.Give();
  request.Audit(pelmora::admin::kExecRunCode, audit_text + OutcomeText(result.exit),
                result.in_step ? kSuccess : kInvalidFunction);
  request.channel.ArmIdleTimer();
  co_return result.in_step;
}

}  // namespace

asio::awaitable<bool> HandleExec(RequestScope& request, const RequestBlock& block) {
  if (block.code == pelmora::admin::kExecHelloCode) {
    bool valid = pelmora::admin::ParseExecHello(block).has_value();
    request.Audit(block.code, "hello", valid ? kSuccess : kInvalidParameter);
    if (!valid) co_return co_await request.channel.SendResult(kInvalidParameter);
    co_return co_await request.channel.SendMessage(
        pelmora::admin::BuildResultReply(true, pelmora::admin::kExecVersion, ""));
  }
  std::optional<ExecRequest> parsed = pelmora::admin::ParseExecRequest(block);
  int32_t refusal = !parsed                     ? kInvalidParameter
                    : !request.account.commands ? kAccessDenied
                    : !request.running_commands.TryTake(request.limits().commands)
                        ? kNotEnoughMemory
                        : kSuccess;
  std::string audit_text = parsed ? AuditText(*parsed) : "";
  if (refusal != kSuccess) {
    request.Audit(block.code, audit_text, refusal);
    co_return co_await request.channel.SendResult(refusal);
  }
  auto job = std::make_shared<ExecJob>();
  // Tracked, as every command: descendants that detach are still killed with it.
  pelmora::ChildSpec launch =
      parsed->arguments.empty() ? TrackedCommand(request.runtime.config.shell, parsed->command_line)
                                : TrackedArguments(parsed->arguments);
  launch.working_folder = request.account.working_folder;
  launch.run_as = request.account.run_as;
  launch.separate_streams = true;
  int32_t start_error = co_await request.RunOnPool([&] {
    try {
      job->child.emplace(pelmora::ChildProcess::Start(launch));
      return 0;
    } catch (const pelmora::Error& error) {
      return static_cast<int>(error.Number());
    }
  });
  if (start_error != 0) {
    request.running_commands.Give();
    request.Audit(block.code, audit_text, start_error);
    co_return co_await request.channel.SendResult(start_error);
  }
  co_return co_await StreamExec(request, job, parsed->timeout, audit_text);
}

}  // namespace pelmorad
