// Small helpers for text.
#pragma once

#include "base/address.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace relay {

// ASCII only, as host names, header names and hexadecimal digits are.
char lower_case(char c);
std::string lower_case(std::string_view text);
bool equals_ignoring_case(std::string_view a, std::string_view b);

std::string_view trimmed(std::string_view text); // without blanks and tabs at its ends

// An address without a zone, "%eth0", which has a meaning on one machine only.
std::optional<asio::ip::address> parse_address(std::string_view text);

// "192.0.2.1", also when it came in on an IPv6 socket; "2001:db8::1".
std::string to_text(const asio::ip::address& address);
// "192.0.2.1:443", "[2001:db8::1]:443".
std::string to_text(const Tcp::endpoint& endpoint);

// "2026-01-31T23:59:59.123Z".
std::string iso_time(std::chrono::system_clock::time_point time);

// With the characters that mean something in HTML replaced.
std::string html_escaped(std::string_view text);

} // namespace relay
