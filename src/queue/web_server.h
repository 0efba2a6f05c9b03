#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Sockets to the router's own web server: plain TCP to the local host. A web server that is slow
// must not hold the session, nor a session that was told to end: every wait has a limit, `patience`
// milliseconds without progress, and ends within LOOK_MS when the session is to end
// (core/wanted.h).
//
// Owner of a socket: whoever opened it. Threads: any, one at a time for one socket. All functions
// fail with -1 and errno: ETIMEDOUT past the limit, ECANCELED when the session is to end.

// Opens a socket, of which no call here waits for longer than it says. Returns it, or -1.
int web_server_open();

// Connects it to the web server at that port. Returns 0 or -1; EMFILE for a descriptor that no
// fd_set can hold.
int web_server_connect(int fd, uint16_t port, int64_t patience);

// For a body that is sent in several pieces: none of them waits for the one before to be
// acknowledged, and the kernel does not take in megabytes that the web server has not read. A body
// that was sent is then nearly delivered, and the wait for its answer begins in time.
void web_server_expect_pieces(int fd);

// Sends all of the `size` bytes, for as long as the web server takes some of them in time. Returns
// 0 or -1.
int web_server_send(int fd, const uint8_t* bytes, size_t size, int64_t patience);

// Reads what has come, at most `size` bytes, waiting for something. Returns the number of bytes, 0
// when the web server closed, or -1.
ssize_t web_server_recv(int fd, uint8_t* buffer, size_t size, int64_t patience);

// True when a read would not wait: something came, or the web server closed.
bool web_server_has_answered(int fd);
