#pragma once

#include <cstdint>

struct sockaddr_in;

// Connecting a TCP socket without blocking, and waiting on a descriptor. Threads: any, one at a
// time for one descriptor.

enum class wait_for { reading, writing };

// Waits until `fd` is ready, at most `timeout` milliseconds and no longer than the calling thread's
// work is wanted (core/wanted.h). Returns what select returns: 1 ready, 0 when the wait is over, -1
// with errno. A descriptor that no fd_set can hold is refused with EMFILE.
int wait_descriptor(int fd, wait_for readiness, int64_t timeout);

// What became of a non-blocking connect: 0 when the socket is connected, else an errno, also when
// the system cannot tell.
int socket_error(int fd);

// Bytes in the socket's send buffer that the peer has not acknowledged; 0 when the system cannot
// tell.
int unsent_bytes(int fd);

// Opens a TCP socket that child processes do not inherit. Returns it, or -1 with errno; EMFILE also
// for a descriptor that no fd_set can hold.
int open_tcp_socket();

// Connects `fd` to `address`, at most `timeout` milliseconds. Returns 0 or -1, with errno in the
// latter case where the system gave one. `fd` is non-blocking from then on, in either case.
int connect_nonblock(int fd, const sockaddr_in* address, int64_t timeout);
