#pragma once

#include "core/cloud_cycle_record.h"
#include "core/session_notice.h"

// The cloud cycle's set-up and release, and the operations on it. The record is documented in
// core/cloud_cycle_record.h; the session that runs on it, in session/main_loop.h. One cycle serves
// one session. Threads: the worker's, except cloud_cycle_stop, cloud_cycle_let_go and the set-up,
// which the event loop's thread calls.

constexpr unsigned MQ_INIT_NUMBER_DEFAULT = 40; // slots of the message queue

// Fills a record for the relay server at `ipaddr`, a name or an address, and `port`. Returns 0; 100
// for a null argument or a port above 65535; 101 when a text cannot be copied; -1 when socket or
// queue cannot be made. After a failure cloud_cycle_destroy releases what was made.
int cloud_cycle_init(const char* ipaddr, int port, cloud_cycle_t* cycle);

// Releases all that the cycle holds, the calling thread's exchanges with the web server, and the
// record itself, complete or half made. Null is only logged, here and below.
void cloud_cycle_destroy(cloud_cycle_t* cycle);

// Asks the session to end at its next turn; does not wait for it. Any thread, while the cycle
// exists. Returns 0. Requires a cycle.
int cloud_cycle_stop(cloud_cycle_t* cycle);

// Tells the session's worker that a newer one took its place: it ends within a second wherever it
// waits, except in the resolver, and in a packet that the relay still takes. Any thread, while the
// cycle exists. Requires a cycle.
void cloud_cycle_let_go(cloud_cycle_t* cycle);

// Prints the record plainly on standard output, for debugging. Called by nobody.
void cloud_cycle_dump(cloud_cycle_t* cycle);
