// The PROXY protocol: a load balancer that passes on TCP connections tells, in front of their first
// bytes, from where each came. Version 1 is a line of text, version 2 is binary.
//
// Bytes in, result out: who may send one, and until when, is decided by the caller.
#pragma once

#include "base/address.h"

#include <optional>
#include <string_view>

namespace relay {

struct ProxyHeader {
    enum class State {
        none,       // the bytes begin otherwise
        undecided,  // too few bytes to tell
        incomplete, // more of it has to come
        complete,
        broken,
    };

    State state = State::none;
    std::size_t bytes = 0;               // of the header, when it is complete
    std::optional<Tcp::endpoint> client; // nothing: the proxy speaks for itself, or does not know
    std::string_view mistake;            // when it is broken: what is wrong, as part of a sentence
};

// Longer headers are broken. Version 1 needs 107 bytes at most; version 2 may name 64 KiB.
constexpr std::size_t max_proxy_header_bytes = 4096;

// Reads the header at the beginning of a connection's bytes.
ProxyHeader read_proxy_header(std::string_view input);

} // namespace relay
