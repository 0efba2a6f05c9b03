#pragma once

#include <cstddef>
#include <cstdint>

// A relay server as it is configured: a host, a name or a dotted IPv4 address, and a port. Plain
// data, copied freely.

constexpr size_t HOST_SIZE = 254;                  // DNS allows 253 characters
constexpr size_t SERVER_TEXT_SIZE = HOST_SIZE + 6; // ":65535"
constexpr size_t SERVERS_MAX = 8;                  // in one list

struct server {
    char host[HOST_SIZE];
    uint16_t port;
};

struct server_text {
    char text[SERVER_TEXT_SIZE];
};

// Reads "host:port" strictly: the host a name of letters, digits, '-', '_' and dots, or a dotted
// IPv4 address; the port a number from 1 to 65535. False leaves *out alone.
bool server_parse(const char* text, server* out);

// "host:port".
server_text server_show(const server& shown);

bool server_equal(const server& one, const server& other);

// Whether the host is an address and no name; then its four bytes are in *address, in the order
// of the network.
bool server_address(const server& asked, uint32_t* address);
