#include "base/arrival.h"

namespace relay {

using State = ProxyHeader::State;

Awaitable<ProxyHeader> receive_proxy_header(Socket& socket, std::string& input) {
    ProxyHeader header{State::undecided, 0, std::nullopt, {}};
    error_code error;
    while (!error && (header.state == State::undecided || header.state == State::incomplete)) {
        const std::size_t before = input.size();
        input.resize(before + max_proxy_header_bytes);
        const auto count = co_await socket.async_read_some(
            asio::buffer(input.data() + before, max_proxy_header_bytes), into(error));
        input.resize(before + count);
        header = read_proxy_header(input);
    }
    if (header.state == State::incomplete)
        header = {State::broken, 0, std::nullopt, "the connection ended within it"};
    input.erase(0, header.bytes);
    co_return header;
}

} // namespace relay
