// Runs blocking file work on the service's thread pool from a session coroutine and resumes the
// coroutine on its own executor with the result, so one slow disk does not stall other sessions.
//
//   int32_t error = co_await RunBlocking(pool, [&] { return DeleteFile(drives, path); });
//
// Built from plain handlers rather than a coroutine lambda: GCC 12 mis-copies the captures of a
// coroutine lambda handed to co_spawn.
#ifndef PELMORAD_BLOCKING_H_
#define PELMORAD_BLOCKING_H_

#include <asio/associated_executor.hpp>
#include <asio/async_result.hpp>
#include <asio/dispatch.hpp>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <asio/use_awaitable.hpp>
#include <type_traits>
#include <utility>

namespace pelmorad {

// Calls `function` (which must return a value and must not throw) on `pool` and yields its
// result to the awaiting coroutine. The caller's references stay valid: it waits.
template <typename Function>
auto RunBlocking(asio::thread_pool& pool, Function function) {
  using Result = std::invoke_result_t<Function>;
  auto initiation = [&pool](auto handler, Function work) {
    asio::post(pool, [handler = std::move(handler), work = std::move(work)]() mutable {
      Result result = work();
      auto executor = asio::get_associated_executor(handler);
      asio::dispatch(executor,
                     [handler = std::move(handler), result = std::move(result)]() mutable {
                       std::move(handler)(std::move(result));
                     });
    });
  };
  return asio::async_initiate<const asio::use_awaitable_t<>, void(Result)>(
      std::move(initiation), asio::use_awaitable, std::move(function));
}

}  // namespace pelmorad

#endif  // PELMORAD_BLOCKING_H_
