// Runs blocking file work on the service's thread pool from a session coroutine and resumes the
// coroutine on its own executor with the result, so one slow disk does not stall other sessions.
//
//   int32_t error = co_await RunBlocking(pool, [&] { return DeleteFile(drives, path); });
#ifndef PELMORAD_BLOCKING_H_
#define PELMORAD_BLOCKING_H_

#include <type_traits>
#include <utility>

#include <asio/awaitable.hpp>
#include <asio/co_spawn.hpp>
#include <asio/thread_pool.hpp>
#include <asio/use_awaitable.hpp>

namespace pelmorad {

// Calls `function` (which must return a value) on `pool` and yields its result; an exception it
// throws is rethrown in the caller. The caller's references stay valid: it waits.
template <typename Function>
asio::awaitable<std::invoke_result_t<Function>> RunBlocking(asio::thread_pool& pool,
                                                            Function function) {
  using Result = std::invoke_result_t<Function>;
  co_return co_await asio::co_spawn(
      pool.get_executor(),
      [function = std::move(function)]() mutable -> asio::awaitable<Result> {
        co_return function();
      },
      asio::use_awaitable);
}

}  // namespace pelmorad

#endif  // PELMORAD_BLOCKING_H_
