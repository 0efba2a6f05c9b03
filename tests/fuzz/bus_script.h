#pragma once

#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "fuzz.h"
#include "wire/message.h"

// What peers on a bus do, as an input describes it: a sequence of steps, each an operation of 8
// bits and a text behind its length in 16 bits.

using bus_bytes = std::vector<uint8_t>;

// A whole message whose type (8 bits), seq (16), peer (32) and attributes are `text`. A mutation
// seldom finds the two lengths of a message at once, so the message gets them here.
inline bus_bytes bus_message(std::string_view text) {
    const size_t fields = bus::header_bytes - 1; // the version is not among them
    std::string padded(text);
    padded.resize(std::max(text.size(), fields));
    padded.resize(fields + (padded.size() - fields) / BLOB_ATTR_ALIGN * BLOB_ATTR_ALIGN);
    const uint32_t length = static_cast<uint32_t>(sizeof(blob_attr) + padded.size() - fields);
    bus_bytes bytes = {bus::wire_version};
    bytes.insert(bytes.end(), padded.begin(), padded.begin() + static_cast<long>(fields));
    for (const int shift : {24, 16, 8, 0}) {
        bytes.push_back(static_cast<uint8_t>(length >> shift));
    }
    bytes.insert(bytes.end(), padded.begin() + static_cast<long>(fields), padded.end());
    return bytes;
}

// Two ends of a connection, which neither reads nor writes wait for.
struct bus_connection {
    int ends[2];

    bus_connection() { REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0); }
};

// Everything that has come.
inline bool bus_receive(int fd, bus_bytes& received) {
    uint8_t bytes[4096];
    bool some = false;
    for (;;) {
        const ssize_t count = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
        if (count <= 0) {
            return some;
        }
        received.insert(received.end(), bytes, bytes + count);
        some = true;
    }
}
