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
#include "pelmorad/session.h"
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

}  // namespace

// A started command and the session socket's descriptor, shared with the stream thread.
struct ExecJob {
  std::optional<pelmora::ChildProcess> child;
  int socket_fd = -1;
  ExecStreamLimits limits;
  ~ExecJob() {
    if (socket_fd >= 0) ::close(socket_fd);
  }
};

asio::awaitable<bool> Session::HandleExec(const RequestBlock& block) {
  if (block.code == pelmora::admin::kExecHelloCode) {
    bool valid = pelmora::admin::ParseExecHello(block).has_value();
    AuditRequest(block.code, "hello", valid ? kSuccess : kInvalidParameter);
    if (!valid) co_return co_await SendResult(kInvalidParameter);
    co_return co_await SendMessage(
        pelmora::admin::BuildResultReply(true, pelmora::admin::kExecVersion, ""));
  }
  std::optional<ExecRequest> request = pelmora::admin::ParseExecRequest(block);
  int32_t refusal = !request                                                 ? kInvalidParameter
                    : !account_->commands                                    ? kAccessDenied
                    : !context_.running_commands.TryTake(limits().commands) ? kNotEnoughMemory
                                                                             : kSuccess;
  std::string audit_text = request ? AuditText(*request) : "";
  if (refusal != kSuccess) {
    AuditRequest(block.code, audit_text, refusal);
    co_return co_await SendResult(refusal);
  }
  auto job = std::make_shared<ExecJob>();
  // Tracked, as every command: descendants that detach are still killed with it.
  pelmora::ChildSpec launch = request->arguments.empty()
                                  ? TrackedCommand(runtime_->config.shell, request->command_line)
                                  : TrackedArguments(request->arguments);
  launch.working_folder = account_->working_folder;
  launch.run_as = account_->run_as;
  launch.separate_streams = true;
  int32_t start_error = co_await RunBlocking(context_.pool, [&] {
    try {
      job->child.emplace(pelmora::ChildProcess::Start(launch));
      return 0;
    } catch (const pelmora::Error& error) {
      return static_cast<int>(error.Number());
    }
  });
  if (start_error != 0) {
    context_.running_commands.Give();
    AuditRequest(block.code, audit_text, start_error);
    co_return co_await SendResult(start_error);
  }
  co_return co_await StreamExec(job, request->timeout, audit_text);
}

asio::awaitable<bool> Session::StreamExec(std::shared_ptr<ExecJob> job, int32_t timeout,
                                          std::string audit_text) {
  if (!co_await SendResult(kSuccess)) {
    context_.running_commands.Give();
    co_return false;
  }
  idle_timer_.expires_at(asio::steady_timer::time_point::max());
  job->socket_fd = ::dup(socket_.native_handle());
  job->limits.timeout_ms = timeout;
  job->limits.finish_ms = limits().idle_seconds * 1000;
  command_group_ = job->child->pid();
  // The coroutine keeps the job alive while it waits; the lambda holds a plain pointer because
  // GCC 12 mis-copies non-trivial captures of lambdas made inside a coroutine.
  ExecJob* running = job.get();
  ExecStreamResult result;
  try {
    result = co_await RunOnOwnThread(
        [running] { return RunExecStream(running->socket_fd, *running->child, running->limits); });
  } catch (const std::system_error&) {
    // No thread to serve the command: it is killed and the session ends.
    KillCommandTree(*job->child);
    result.exit = {pelmora::admin::ExecOutcome::kSignalled, SIGKILL};
  }
  command_group_ = 0;
  context_.running_commands.Give();
  AuditRequest(pelmora::admin::kExecRunCode, audit_text + OutcomeText(result.exit),
               result.in_step ? kSuccess : kInvalidFunction);
  ArmIdleTimer();
  co_return result.in_step;
}

}  // namespace pelmorad
