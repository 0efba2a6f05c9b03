// A device's introduction.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace relay {

using Sha256 = std::array<unsigned char, 32>;

Sha256 sha256(std::string_view text);

// The longest hello: four texts of at most 127 bytes, escaped at worst, fit with room to spare.
constexpr std::size_t max_hello_bytes = 4096;

struct Hello {
    std::string device_id; // a host name label: letters, digits, '-', '_'; 1 to 63
    std::string mac;
    std::string firmware_id;
    Sha256 token; // the token itself is not kept
};

// From a hello's JSON. On failure returns nothing, and `error` says what is wrong with it.
std::optional<Hello> parse_hello(std::string_view json, std::string& error);

// The key under which a device is known: host names do not tell upper from lower case.
std::string device_key(std::string_view device_id);

} // namespace relay
