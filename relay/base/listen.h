// Listening sockets.
#pragma once

#include "base/asio.h"
#include "base/config.h"

#include <boost/asio/basic_socket_acceptor.hpp>

#include <string>

namespace relay {

// Opens, binds, listens. On failure puts one sentence into `error`.
bool listen(Acceptor& acceptor, const ListenAddress& address, std::string& error);

// The next connection. Shortage of descriptors or memory is waited out; false when `acceptor` is
// closed.
Awaitable<bool> accept(Acceptor& acceptor, Socket& socket);

} // namespace relay
