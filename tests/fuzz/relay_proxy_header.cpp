// The header that a load balancer puts in front of a connection, in text and in bytes.
//
// Input: the connection's bytes.

#include "base/proxy_header.h"
#include "fuzz.h"

namespace {

using relay::ProxyHeader;
using State = ProxyHeader::State;

constexpr std::string_view text_begin = "PROXY ";

void check(const ProxyHeader& header, std::string_view input) {
    REQUIRE((header.state == State::complete) == (header.bytes > 0));
    REQUIRE((header.state == State::broken) == !header.mistake.empty());
    REQUIRE(!header.client || header.state == State::complete);
    REQUIRE(header.bytes <= input.size() && header.bytes <= relay::max_proxy_header_bytes);
    REQUIRE(header.state != State::incomplete || input.size() < relay::max_proxy_header_bytes);
}

// What a complete header is does not depend on what stands behind it, nor on how it came: no part
// of it is taken for anything else.
void check_parts(const ProxyHeader& header, std::string_view input) {
    const auto alone = relay::read_proxy_header(input.substr(0, header.bytes));
    REQUIRE(alone.state == State::complete && alone.bytes == header.bytes);
    REQUIRE(alone.client == header.client);
    for (std::size_t size = 0; size < header.bytes; ++size) {
        const auto state = relay::read_proxy_header(input.substr(0, size)).state;
        REQUIRE(state == State::undecided || state == State::incomplete);
    }
}

// The client of a line of text, written again, is the same.
void check_written_again(const ProxyHeader& header) {
    const auto& address = header.client->address();
    const std::string family = address.is_v6() ? "TCP6 " : "TCP4 ";
    const std::string line = std::string(text_begin) + family + address.to_string() + " " +
                             address.to_string() + " " + std::to_string(header.client->port()) +
                             " 1\r\n";
    const auto again = relay::read_proxy_header(line);
    REQUIRE(again.state == State::complete && again.bytes == line.size());
    REQUIRE(again.client == header.client);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto header = relay::read_proxy_header(input);
    check(header, input);
    if (header.state == State::complete)
        check_parts(header, input);
    if (header.client)
        check_written_again(header);
    return 0;
}
