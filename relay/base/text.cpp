#include "base/text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace relay {

char lower_case(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lower_case(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        c = lower_case(c);
    return result;
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lower_case(x) == lower_case(y); });
}

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::optional<asio::ip::address> parse_address(std::string_view text) {
    if (text.find_first_not_of("0123456789abcdefABCDEF:.") != text.npos)
        return std::nullopt;
    error_code wrong;
    const auto address = asio::ip::make_address(std::string(text), wrong);
    return wrong ? std::nullopt : std::optional(address);
}

std::string to_text(const asio::ip::address& address) {
    if (address.is_v6() && address.to_v6().is_v4_mapped())
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
    return address.to_string();
}

std::string to_text(const Tcp::endpoint& endpoint) {
    std::string host = to_text(endpoint.address());
    if (host.find(':') != std::string::npos)
        host = "[" + host + "]";
    return host + ":" + std::to_string(endpoint.port());
}

std::string iso_time(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    const auto milliseconds = duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    const std::time_t seconds = static_cast<std::time_t>(milliseconds.count() / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char date[32];
    const auto length = std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03dZ",
                  static_cast<int>(milliseconds.count() % 1000));
    return std::string(date, length) + fraction;
}

std::string html_escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        case '\'':
            result += "&#39;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

} // namespace relay
