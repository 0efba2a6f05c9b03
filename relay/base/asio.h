// The Asio types that relay_server is written in, and the one rule behind them: a single thread
// runs a single io_context, everything but the writing of logs happens on it, and nothing else is
// locked.
#pragma once

#include "base/address.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <chrono>

namespace relay {

using Clock = std::chrono::steady_clock;
using Executor = asio::io_context::executor_type;
template <typename T>
using Awaitable = asio::awaitable<T, Executor>;
using Socket = asio::basic_stream_socket<Tcp, Executor>;
using Acceptor = asio::basic_socket_acceptor<Tcp, Executor>;
using Timer = asio::basic_waitable_timer<Clock, asio::wait_traits<Clock>, Executor>;

// GCC 12 miscompiles some co_awaits within conditions: each stands in a statement of its own.
//
// The token of every asynchronous call: suspends the coroutine, puts the error into `error`.
inline auto into(error_code& error) {
    return asio::redirect_error(asio::use_awaitable_t<Executor>{}, error);
}

} // namespace relay
