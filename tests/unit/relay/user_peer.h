// A user's connection over loopback: both ends, in the test's event loop.
#pragma once

#include "coroutines.h"
#include "front/user_stream.h"

#include <boost/asio/write.hpp>

#include <string>
#include <string_view>

class UserPeer {
public:
    UserPeer(Coroutines& coroutines, relay::Deadlines& deadlines)
        : socket_(coroutines.executor()),
          stream_(accepted(coroutines), relay::TlsContext(), deadlines) {
        socket_.non_blocking(true);
    }

    relay::UserStream& stream() { return stream_; } // the relay's end

    void send(std::string_view text) {
        socket_.non_blocking(false);
        relay::asio::write(socket_, relay::asio::buffer(text));
        socket_.non_blocking(true);
    }

    // All that has come so far.
    const std::string& received() {
        char bytes[65536];
        relay::error_code error;
        while (!error) {
            const auto count = socket_.read_some(relay::asio::buffer(bytes), error);
            received_.append(bytes, count);
        }
        was_reset_ = was_reset_ || error == relay::asio::error::connection_reset;
        return received_;
    }
    bool was_reset() {
        received();
        return was_reset_;
    }

    void close() { socket_.close(); }

private:
    relay::Socket accepted(Coroutines& coroutines) {
        relay::asio::basic_socket_acceptor<relay::Tcp, relay::Executor> acceptor(
            coroutines.executor(),
            relay::Tcp::endpoint(relay::asio::ip::address_v4::loopback(), 0));
        socket_.connect(acceptor.local_endpoint());
        relay::Socket socket(coroutines.executor());
        acceptor.accept(socket);
        return socket;
    }

    relay::Socket socket_;
    relay::UserStream stream_;
    std::string received_;
    bool was_reset_ = false;
};
