#pragma once

#include <cstddef>
#include <cstdint>

// Rows of the kernel's table of TCP connections over IPv4, the text of /proc/PID/net/tcp. Pure.

// Addresses are in the order of the network, ports are plain numbers.
struct tcp_row {
    uint32_t local_address;
    uint32_t remote_address;
    uint16_t remote_port;
    bool established;
    uint64_t inode; // of the socket; 0 for one that nobody holds any more
};

// Reads one line. False for the heading, and for what is no row.
bool tcp_row_parse(const char* line, tcp_row* out);
