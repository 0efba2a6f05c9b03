#pragma once

// The daemon's ubus object `cloud_relayc`: `reload` (address, port), `stop` and `dbg`; and the bus
// connection that it lives on. Threads: the main thread's alone, as all of uloop.

// Connects to the bus, adds the object and runs the event loop. Returns -1 when that fails, 0 when
// the loop has ended.
int ubus_init();
