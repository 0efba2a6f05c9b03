#include "front/user_stream.h"

#include "base/arrival.h"
#include "base/crowd.h"

#include <boost/asio/write.hpp>

#include <openssl/ssl.h>
#include <poll.h>

namespace relay {

UserStream::UserStream(Socket socket, TlsContext tls, Deadlines& deadlines)
    : socket_(std::move(socket)), context_(std::move(tls)),
      deadline_(deadlines, [this] { close(); }) {
    if (context_)
        tls_ = std::make_unique<TlsStream>(socket_, *context_);
    error_code ignored;
    socket_.set_option(Tcp::no_delay(true), ignored);
}

Awaitable<ProxyHeader> UserStream::proxy_header(std::string& input) {
    return receive_proxy_header(socket_, input);
}

Awaitable<bool> UserStream::handshake(std::string& input) {
    if (!tls_)
        co_return true;
    error_code error;
    co_await tls_->async_handshake(asio::ssl::stream_base::server, asio::buffer(input),
                                   into(error));
    input.clear();
    co_return !error;
}

Awaitable<std::size_t> UserStream::read_some(asio::mutable_buffer buffer) {
    error_code error;
    std::size_t count = 0;
    if (tls_)
        count = co_await tls_->async_read_some(buffer, into(error));
    else
        count = co_await socket_.async_read_some(buffer, into(error));
    co_return error ? 0 : count;
}

Awaitable<bool> UserStream::write(std::string_view first, std::string_view second) {
    const std::array<asio::const_buffer, 2> texts = {asio::buffer(first), asio::buffer(second)};
    error_code error;
    if (tls_)
        co_await asio::async_write(*tls_, texts, into(error));
    else
        co_await asio::async_write(socket_, texts, into(error));
    co_return !error;
}

bool UserStream::is_there() {
    pollfd end{socket_.native_handle(), POLLRDHUP, 0}; // seen behind unread bytes, too
    return socket_.is_open() && poll(&end, 1, 0) == 0;
}

bool UserStream::is_quiet() {
    return relay::is_quiet(socket_.native_handle());
}

Awaitable<void> UserStream::end_output() {
    error_code ignored;
    if (tls_ && SSL_is_init_finished(tls_->native_handle()))
        co_await tls_->async_shutdown(into(ignored));
    socket_.shutdown(Socket::shutdown_send, ignored);
}

void UserStream::reset() {
    error_code ignored;
    socket_.set_option(Socket::linger(true, 0), ignored);
    socket_.close(ignored);
}

void UserStream::close() {
    error_code ignored;
    socket_.close(ignored);
}

} // namespace relay
