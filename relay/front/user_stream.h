// A user's connection, plain or TLS, as bytes.
#pragma once

#include "base/deadlines.h"
#include "base/proxy_header.h"
#include "base/tls.h"

#include <array>
#include <memory>
#include <string>
#include <string_view>

namespace relay {

class UserStream {
public:
    // `tls` null: plain HTTP.
    UserStream(Socket socket, TlsContext tls, Deadlines& deadlines);

    // When it passes the connection is closed.
    Deadline& deadline() { return deadline_; }

    bool is_tls() const { return tls_ != nullptr; }

    // As receive_proxy_header().
    Awaitable<ProxyHeader> proxy_header(std::string& input);
    // TLS takes what has come already out of `input`.
    Awaitable<bool> handshake(std::string& input);
    // 0: the user is gone.
    Awaitable<std::size_t> read_some(asio::mutable_buffer buffer);
    // Both texts, one after the other. False: the user is gone.
    Awaitable<bool> write(std::string_view first, std::string_view second = {});

    // False when the user has hung up, as far as the system knows.
    bool is_there();
    // Whether nothing has come for a while.
    bool is_quiet();
    // Says that nothing more comes, which TLS does in a record of its own.
    Awaitable<void> end_output();
    void close();
    void reset(); // what was not sent yet is lost

private:
    Socket socket_;
    TlsContext context_; // kept: a reload replaces the front's
    std::unique_ptr<TlsStream> tls_;
    Deadline deadline_;
};

} // namespace relay
