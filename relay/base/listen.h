// A listening socket that takes connections for as long as it is open.
#pragma once

#include "base/asio.h"
#include "base/config.h"
#include "base/deadlines.h"
#include "base/signal.h"

#include <boost/asio/basic_socket_acceptor.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace relay {

// Owned by a part of the relay; used on its thread.
class Listener {
public:
    // `welcome` takes each connection; what it throws ends that connection alone. `has_room` is
    // asked before each; while it says no, newcomers wait in the system's queue.
    Listener(
        const Executor& executor, Deadlines& deadlines, std::function<void(Socket)> welcome,
        std::function<bool()> has_room = [] { return true; });

    // Listens there and takes connections from now on. False: `error` says why.
    bool listen(const ListenAddress& address, std::string& error);
    std::uint16_t port() const;
    void close();
    // There may be room again.
    void look_again() { room_.notify(); }

private:
    void open(const ListenAddress& address, error_code& wrong);
    void start();
    Awaitable<void> take_all();
    Awaitable<bool> take(Socket& socket);

    Acceptor acceptor_;
    std::function<void(Socket)> welcome_;
    std::function<bool()> has_room_;
    Signal room_;
    Deadline again_; // when to start once more, after a failure; it needs no memory
    const std::shared_ptr<const void> alive_ = std::make_shared<char>(); // the first to go
};

} // namespace relay
