#pragma once

#include <cstddef>
#include <cstdint>

#include "server.h"

// The daemon's session, seen from outside: is there a worker thread ("cycleHnd_N" among the names
// of the process's threads), and does the process hold an established TCP connection to one of the
// ports where relays are expected? Main thread.
//
// A worker with an established connection is not yet a session: a relay may accept and then say
// nothing. The daemon bounds that: an address gets 35 s of waiting for TLS, then 5 s for the
// header of the hello's answer and 5 s for its body, and the connection is closed when they have
// passed. Two things tell a session from a handshake that hangs:
//   - a connection that stands for longer than all these together has its handshake behind it;
//   - a worker at rest in a session wakes five times a second, in TLS it sleeps until its peer
//     speaks, and while it waits for the hello it wakes fifty times a second. A worker that keeps
//     a session's pace over two looks is in one. This tells after two seconds what the bounds tell
//     after fifty; a session that is busy from the start is left to the bounds.
// Neither says that the relay means it well: only how long the session lives does.
//
// Looks are cheap while nothing changes: the worker's name and the identity of the socket are read
// again, the process's descriptors and the table of connections only twice a minute. A second
// look within a second gives the first one's result again.

// What a look saw.
struct sighting {
    int64_t at;       // when, by now_ms
    bool daemon;      // the process is there and can be looked into
    int worker;       // thread id of the newest worker; 0: none
    bool calm;        // the worker keeps the pace of a session
    bool established; // it has a connection; the rest tells which
    uint64_t inode;   // of the connection's socket; another one is another connection
    uint32_t address; // of the relay, in the order of the network
    uint16_t port;
    bool cut_off; // the connection's own address is on no interface of ours any more
};

struct session_watch {
    const char* program;
    uint16_t ports[SERVERS_MAX];
    size_t port_count;

    int process;     // the daemon's folder in /proc, see process.h
    sighting last;   // what is given again within a second
    int descriptor;  // of the connection in the daemon
    uint32_t local;  // the connection's own address
    int cheap_looks; // since the last thorough one

    uint64_t switches;   // how often the worker had gone to sleep
    int64_t switches_at; // when that was read; 0: never
    int calm_looks;      // in a row
};

// Looks for a process that runs `program`, which must outlive the watch.
void session_watch_init(session_watch* watch, const char* program);
void session_watch_destroy(session_watch* watch);

// Connections to the ports of these servers count. The next look is a thorough one.
void session_watch_expect(session_watch* watch, const server* servers, size_t count);

sighting session_watch_look(session_watch* watch, int64_t now);
