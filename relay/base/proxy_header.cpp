#include "base/proxy_header.h"

#include "base/text.h"

#include <algorithm>
#include <charconv>

namespace relay {
namespace {

using namespace std::string_view_literals;
using State = ProxyHeader::State;

constexpr std::string_view text_begin = "PROXY ";
constexpr std::size_t max_text_bytes = 107;
constexpr std::string_view binary_begin = "\r\n\r\n\0\r\nQUIT\n"sv;
constexpr std::size_t binary_head_bytes = 16; // signature, version and command, family, length

ProxyHeader broken(std::string_view mistake) {
    return {State::broken, 0, std::nullopt, mistake};
}

ProxyHeader incomplete() {
    return {State::incomplete, 0, std::nullopt, {}};
}

// The next word of a line, which loses it and the one blank behind it. Between two blanks in a row
// there is an empty word, which is neither an address nor a port.
std::string_view take_word(std::string_view& line) {
    const auto word = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(line.size(), word.size() + 1));
    return word;
}

std::optional<std::uint16_t> parse_port(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, wrong] = std::from_chars(text.data(), text.data() + text.size(), port);
    const bool has_leading_zero = text.size() > 1 && text.front() == '0';
    if (wrong != std::errc{} || end != text.data() + text.size() || has_leading_zero)
        return std::nullopt;
    return port;
}

// "TCP4 192.0.2.1 198.51.100.1 56324 443" with "TCP4" already taken.
ProxyHeader read_text_addresses(std::string_view line, bool is_v6) {
    const auto source = parse_address(take_word(line));
    const auto destination = parse_address(take_word(line));
    if (!source || !destination || source->is_v6() != is_v6 || destination->is_v6() != is_v6)
        return broken("its line does not name two addresses of that family");
    const auto source_port = parse_port(take_word(line));
    if (!source_port || !parse_port(line))
        return broken("its line does not end with two ports");
    return {State::complete, 0, Tcp::endpoint(*source, *source_port), {}};
}

ProxyHeader read_text(std::string_view input) {
    const auto end = input.substr(0, max_text_bytes).find("\r\n");
    if (end == input.npos)
        return input.size() < max_text_bytes ? incomplete()
                                             : broken("its line is longer than 107 bytes");
    auto line = input.substr(text_begin.size(), end - text_begin.size());
    const auto family = take_word(line);
    ProxyHeader header;
    if (family == "TCP4" || family == "TCP6")
        header = read_text_addresses(line, family == "TCP6");
    else if (family == "UNKNOWN") // whatever follows
        header.state = State::complete;
    else
        header = broken("its line names none of TCP4, TCP6 and UNKNOWN");
    if (header.state == State::complete)
        header.bytes = end + 2;
    return header;
}

std::size_t number_at(std::string_view bytes, std::size_t place) {
    const auto at = [bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    return static_cast<std::size_t>(at(place)) << 8 | at(place + 1);
}

// Source and destination address, source and destination port.
template <typename Address>
ProxyHeader read_binary_addresses(std::string_view block) {
    typename Address::bytes_type bytes;
    if (block.size() < 2 * bytes.size() + 4)
        return broken("it is too short for its addresses");
    std::copy_n(block.begin(), bytes.size(), bytes.begin());
    const auto port = static_cast<std::uint16_t>(number_at(block, 2 * bytes.size()));
    return {State::complete, 0, Tcp::endpoint(Address(bytes), port), {}};
}

// Addresses, and behind them what else the proxy tells, which is skipped.
ProxyHeader read_binary_block(unsigned command, unsigned family, std::string_view block) {
    enum { local = 0x20, proxied = 0x21 };
    enum { unspecified = 0x00, tcp_over_v4 = 0x11, tcp_over_v6 = 0x21 };
    if (command != local && command != proxied)
        return broken("its version is not 2, or its command neither LOCAL nor PROXY");
    if (command == local || family == unspecified)
        return {State::complete, 0, std::nullopt, {}};
    if (family == tcp_over_v4)
        return read_binary_addresses<asio::ip::address_v4>(block);
    if (family == tcp_over_v6)
        return read_binary_addresses<asio::ip::address_v6>(block);
    return broken("its family is neither TCP over IPv4 nor over IPv6");
}

ProxyHeader read_binary(std::string_view input) {
    if (input.size() < binary_head_bytes)
        return incomplete();
    const std::size_t bytes = binary_head_bytes + number_at(input, 14);
    if (bytes > max_proxy_header_bytes)
        return broken("it is longer than 4096 bytes");
    if (input.size() < bytes)
        return incomplete();
    const auto command = static_cast<unsigned char>(input[12]);
    const auto family = static_cast<unsigned char>(input[13]);
    auto header = read_binary_block(command, family,
                                    input.substr(binary_head_bytes, bytes - binary_head_bytes));
    if (header.state == State::complete)
        header.bytes = bytes;
    return header;
}

} // namespace

ProxyHeader read_proxy_header(std::string_view input) {
    if (input.starts_with(text_begin))
        return read_text(input);
    if (input.starts_with(binary_begin))
        return read_binary(input);
    if (text_begin.starts_with(input) || binary_begin.starts_with(input))
        return {State::undecided, 0, std::nullopt, {}}; // an empty input, too
    return {};
}

} // namespace relay
