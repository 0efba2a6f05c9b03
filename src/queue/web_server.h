#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Sockets to the router's own web server: plain TCP to the local host. A web server that is slow
// must not hold the session, nor a session that was told to end: every wait has a limit, and ends
// when the relay connection that it works for is abandoned.
//
// Owner of a socket: whoever opened it. Threads: any, one at a time for one socket. All functions
// fail with -1 and errno: ETIMEDOUT past the limit, ECANCELED when abandoned.

struct cloud_socket_t;

// What a request may still spend waiting. Waits are taken off `patience`.
struct web_wait_t {
    const cloud_socket_t* relay; // whose abandonment ends every wait; null for none
    int64_t patience;            // milliseconds
};

// Opens a socket that never blocks. Returns it, or -1.
int web_server_open();

// Connects it to the web server at that port. Returns 0 or -1; EMFILE for a descriptor that no
// fd_set can hold.
int web_server_connect(int fd, uint16_t port, web_wait_t* wait);

// Sends all of the `size` bytes. Returns 0 or -1.
int web_server_send(int fd, const uint8_t* bytes, size_t size, web_wait_t* wait);

// Reads what has come, at most `size` bytes, waiting for something. Returns the number of bytes, 0
// when the web server closed, or -1.
ssize_t web_server_recv(int fd, uint8_t* buffer, size_t size, web_wait_t* wait);
