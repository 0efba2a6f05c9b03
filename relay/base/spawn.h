// Starts a coroutine that nobody waits for.
#pragma once

#include "base/asio.h"
#include "base/log.h"

#include <boost/asio/co_spawn.hpp>

#include <exception>
#include <functional>

namespace relay {

// Errors of connections are no exceptions here: what does arrive is a lack of memory, which must
// end one connection and not the relay. `on_failure` cleans up after the coroutine.
inline void spawn(
    const Executor& executor, Awaitable<void> coroutine, std::function<void()> on_failure = [] {}) {
    asio::co_spawn(executor, std::move(coroutine),
                   [on_failure = std::move(on_failure)](const std::exception_ptr& failure) {
                       if (!failure)
                           return;
                       try {
                           std::rethrow_exception(failure);
                       } catch (const std::exception& exception) {
                           log::error("a connection failed: ", exception.what());
                       }
                       on_failure();
                   });
}

} // namespace relay
