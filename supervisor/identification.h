#pragma once

#include <cstddef>
#include <cstdint>

#include "server.h"

// Which of the configured servers does an address belong to? Asked about a session that somebody
// else started: an operator, or the supervisor before it was itself restarted. A name is resolved
// in a child process, so that a name server that does not answer holds up nothing here; the child
// is killed after 20 seconds. Main thread, within uloop.

// What came out: an index into the list of servers, or one of these.
constexpr int SERVER_NONE = -1;    // every name resolved, and no server has that address
constexpr int SERVER_UNKNOWN = -2; // some name did not resolve, and no other server has it

// Compares without resolving: the index of a server that is given by that address and port,
// SERVER_NONE when all are given by addresses or have other ports, else SERVER_UNKNOWN.
int identify_by_address(const server* servers, size_t count, uint32_t address, uint16_t port);

// Starts to resolve; `done` is called once, from uloop, with an index, SERVER_NONE or
// SERVER_UNKNOWN. One question at a time: false, and no call, while one is open or when no process
// can be made.
bool identify_start(const server* servers, size_t count, uint32_t address, uint16_t port,
                    void (*done)(int found));

// Forgets the open question, if any, and ends its child.
void identify_cancel();
