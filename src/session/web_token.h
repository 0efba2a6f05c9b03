#pragma once

#include <cstdint>

// The relay's request for a web token: a helper script of the router prints one, and it goes back
// in a small JSON body. Threads: the worker's.

struct cloud_cycle_t;

// Answers the request whose 12 header bytes are at `reqBuf` and whose body is the next on the cloud
// socket; the body may take `timeout` milliseconds. Returns 0, also for a body that arrives short,
// which is not answered; -1 when the helper cannot be started, which is answered with "err_code"
// -1; 4 or 9 when the relay connection failed; 100 for a null argument; 101 when memory is short.
int cloud_server_handle_request_web_token(cloud_cycle_t* cycle, const uint8_t* reqBuf,
                                          int64_t timeout);
