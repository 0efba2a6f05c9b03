// The first bytes of a connection that a trusted proxy has made.
#pragma once

#include "base/asio.h"
#include "base/proxy_header.h"

#include <string>

namespace relay {

// Reads from `socket` into `input`, which is empty, until it is clear whether a PROXY header leads,
// and takes that out: what follows it stays. A connection that ends within one has a broken one.
// Closing the socket ends the wait.
Awaitable<ProxyHeader> receive_proxy_header(Socket& socket, std::string& input);

} // namespace relay
