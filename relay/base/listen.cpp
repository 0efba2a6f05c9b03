#include "base/listen.h"

#include "base/spawn.h"

namespace relay {
namespace {

// Long enough for a connection to end, short enough for nobody to notice.
constexpr std::chrono::milliseconds shortage_pause{100};

} // namespace

Listener::Listener(const Executor& executor, Deadlines& deadlines,
                   std::function<void(Socket)> welcome, std::function<bool()> has_room)
    : acceptor_(executor), welcome_(std::move(welcome)), has_room_(std::move(has_room)),
      room_(executor), again_(deadlines, [this] { start(); }) {}

bool Listener::listen(const ListenAddress& address, std::string& error) {
    error_code wrong;
    open(address, wrong);
    if (wrong) {
        error = "cannot listen on " + address.host + " port " + std::to_string(address.port) +
                ": " + wrong.message();
        return false;
    }
    start();
    return true;
}

void Listener::open(const ListenAddress& address, error_code& wrong) {
    const Tcp::endpoint endpoint(asio::ip::make_address(address.host), address.port);
    acceptor_.open(endpoint.protocol(), wrong);
    if (!wrong)
        acceptor_.set_option(Acceptor::reuse_address(true), wrong);
    if (!wrong)
        acceptor_.bind(endpoint, wrong);
    if (!wrong)
        acceptor_.listen(Acceptor::max_listen_connections, wrong);
}

std::uint16_t Listener::port() const {
    error_code ignored;
    return acceptor_.local_endpoint(ignored).port();
}

void Listener::close() {
    again_.clear();
    error_code ignored;
    acceptor_.close(ignored);
    room_.notify();
}

void Listener::start() {
    spawn(
        acceptor_.get_executor(), alive_, [this] { return take_all(); },
        [this] {
            if (acceptor_.is_open())
                again_.set(shortage_pause);
        });
}

Awaitable<void> Listener::take_all() {
    Socket socket(acceptor_.get_executor());
    bool taken = co_await take(socket);
    while (taken) {
        guarded("a connection failed", [&] { welcome_(std::move(socket)); });
        taken = co_await take(socket);
    }
}

// The next connection. A shortage of descriptors is waited out; false when the listener is closed.
Awaitable<bool> Listener::take(Socket& socket) {
    error_code error;
    // Room is asked for, and made, only when somebody wants to come in.
    co_await acceptor_.async_wait(Acceptor::wait_read, into(error));
    while (acceptor_.is_open() && !has_room_())
        co_await room_.wait(Clock::now() + shortage_pause);
    co_await acceptor_.async_accept(socket, into(error));
    while (error && acceptor_.is_open()) {
        if (error != asio::error::connection_aborted) {
            log::error("cannot accept a connection: ", error.message());
            Timer pause(acceptor_.get_executor(), shortage_pause);
            co_await pause.async_wait(into(error));
        }
        co_await acceptor_.async_accept(socket, into(error));
    }
    co_return acceptor_.is_open();
}

} // namespace relay
