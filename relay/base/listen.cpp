#include "base/listen.h"

#include "base/log.h"

namespace relay {
namespace {

// Long enough for a connection to end, short enough for nobody to notice.
constexpr std::chrono::milliseconds shortage_pause{100};

} // namespace

bool listen(Acceptor& acceptor, const ListenAddress& address, std::string& error) {
    const Tcp::endpoint endpoint(asio::ip::make_address(address.host), address.port);
    error_code wrong;
    acceptor.open(endpoint.protocol(), wrong);
    if (!wrong)
        acceptor.set_option(Acceptor::reuse_address(true), wrong);
    if (!wrong)
        acceptor.bind(endpoint, wrong);
    if (!wrong)
        acceptor.listen(Acceptor::max_listen_connections, wrong);
    if (wrong)
        error = "cannot listen on " + address.host + " port " + std::to_string(address.port) +
                ": " + wrong.message();
    return !wrong;
}

Awaitable<bool> accept(Acceptor& acceptor, Socket& socket) {
    error_code error;
    co_await acceptor.async_accept(socket, into(error));
    while (error && acceptor.is_open()) {
        if (error != asio::error::connection_aborted) {
            log::error("cannot accept a connection: ", error.message());
            Timer pause(acceptor.get_executor(), shortage_pause);
            co_await pause.async_wait(into(error));
        }
        co_await acceptor.async_accept(socket, into(error));
    }
    co_return acceptor.is_open();
}

} // namespace relay
