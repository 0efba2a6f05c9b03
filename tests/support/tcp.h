#pragma once

#include <string>
#include <vector>

// Plain TCP on real sockets, IPv4. Failures of the set-up itself end the test program.

// A listening socket at `address` and `port`, 0 for a free one.
int listen_at(const std::string& address = "127.0.0.1", int port = 0, int backlog = 128);

// The port at this end of a socket.
int port_of(int fd);

// The next connection, or -1 when nobody connects within the usual patience.
int accept_connection(int listener);

// Reads up to `count` bytes, fewer at the connection's end or when patience ends.
std::string read_bytes(int fd, size_t count);

// Writes all of `bytes`; false when the connection does not take them. Raises no SIGPIPE.
bool write_bytes(int fd, const std::string& bytes);

// Closes with a reset instead of an orderly end.
void reset_and_close(int fd);

// A port that refuses connections: it was free a moment ago.
int refusing_port();

// A port on which connecting never comes to an end: its queue is full and nobody accepts.
class deaf_listener {
public:
    deaf_listener();
    ~deaf_listener();
    deaf_listener(const deaf_listener&) = delete;
    deaf_listener& operator=(const deaf_listener&) = delete;

    int port() const;

private:
    int listener;
    std::vector<int> fillers;
};
