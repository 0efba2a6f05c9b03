#pragma once

#include <cstddef>
#include <cstdint>

// What to do with a packet from the relay: its header was read, its body, if any, is the next on
// the cloud socket and is read by whoever handles it. Threads: the worker's. Time-outs are in
// milliseconds.

struct cloud_cycle_t;

// Handles the packet whose header, `length` bytes, is at `message`. Returns 0 when it was handled
// or ignored; any other result ends the session: 100 for null, 10 for a bad magic number, 101 when
// memory is short, -1 for an unknown DataType or a heartbeat reply that nobody waits for, else the
// handler's own.
int cloud_server_handle_dispatch(cloud_cycle_t* cycle, const uint8_t* message, size_t length,
                                 int64_t timeout);

// Books a heartbeat's reply with the message queue. A body, should the relay send one, stays on the
// stream. Returns 0, 101, or -1 when no live heartbeat has its ID.
int cloud_server_handle_response(cloud_cycle_t* cycle, const uint8_t* message, size_t length);
