#pragma once

#include <cstddef>
#include <cstdint>

#include "configuration.h"
#include "schedule.h"
#include "session_watch.h"

// The supervisor's mind: what happened goes in, what is to be done comes out. It makes no call and
// reads no clock; `now` is given, in milliseconds. It says on the log what it decides, and why.
// One record, one owner, main thread.
//
// What counts. An attempt begins with a `reload` of ours and ends when its worker is gone. A
// session was good when it had its handshake behind it (session_watch.h says how that is seen) and
// its connection stood for `success_after`. Everything shorter is a failure, be it a refused
// connection, a relay that accepts and hangs, one that refuses the hello, or one that ends sessions
// as soon as they stand. Failures in a row make the pauses longer and, some times on one server,
// hand on to the next one; a success makes the pause short again and stays with its server.
//
// A session is shown as connected when it has its handshake behind it; until then, as connecting.
//
// A session that is up and leads to a listed server is never reloaded. Given up, and so reloaded
// after the usual pause, are a worker that has had no connection for two minutes, and a connection
// whose own address has left our interfaces: nothing can arrive there any more, and the daemon
// itself would find out only when heartbeats go unanswered, after two minutes. A session that leads
// elsewhere is reloaded at once.

enum class supervision_state { disabled, idle, waiting, connecting, connected };

// What the caller is to do. At most one thing at a time.
enum class order {
    none,
    reload,         // call the daemon's `reload` with supervision_server, then tell how it ended
    stop,           // call its `stop`
    identify,       // find out to which server the session leads, then tell
    restart_daemon, // have procd restart it
};

enum class presence { no_bus, missing, there }; // of the daemon's object

constexpr size_t REASON_SIZE = 320;

// The worker that is watched, from when it was first seen.
struct watched_session {
    int worker;             // thread id; 0: none
    bool ours;              // began with our reload
    bool judged;            // `right` holds
    bool right;             // it leads to `target`, a listed server
    server target;          // kept through a change of the list
    int64_t progress_at;    // when it began, or when its connection was last seen
    uint64_t inode;         // of its connection; 0: none
    int64_t established_at; // when that was first seen; 0: never
    int cut_off_looks;      // in a row
    bool proved;            // that connection has its handshake behind it
    bool connected;         // proved, and known to lead to a listed server
    bool given_up;          // ended for us, though its worker is still there
    int64_t identify_at;    // not before that
};

struct supervision {
    configuration config;
    schedule plan;

    bool held;       // by somebody's `disconnect`
    bool stopping;   // what there is of a session is to end
    int64_t stop_at; // when to ask for that again

    presence object;
    int64_t missing_since;
    int64_t missed_at;        // when its absence is to be reported
    int64_t missing_limit_ms; // doubled with each report
    int blind_looks;          // in a row: on the bus, but not to be seen under /proc

    order calling;     // the call that is out; none or reload or stop
    server called;     // what reload was, or is to be, called with
    bool expecting;    // a reload went well; its worker must show
    int worker_before; // the worker that was there when it was called
    int64_t answered_at;

    watched_session session;
    int64_t replaced_at; // when a session toward elsewhere was last reloaded
    sighting seen;

    supervision_state state;
    int64_t state_since;
    char reason[REASON_SIZE];
};

// What `status` tells.
struct supervision_report {
    supervision_state state;
    server_text toward;  // of the session or of the next attempt; empty without one
    int64_t since_ms;    // how long the state has lasted
    unsigned attempts;   // calls of reload since the last success
    int64_t next_try_ms; // 0: none is planned
    const char* reason;  // valid until the next event
};

void supervision_init(supervision* self, const configuration& config, uint64_t seed, int64_t now);

// The configuration was read anew. A live session toward a server that is still listed stays.
void supervision_configure(supervision* self, const configuration& config, int64_t now);

// The daemon's object came or went, or the bus did.
void supervision_object(supervision* self, presence object, int64_t now);

// Somebody wants a session now: a person, which also ends an earlier disconnect, or the hotplug
// script, which names the interface that came up; for a person it is null. Takes effect at most
// once in `connect_interval`, later when it comes too early. Makes the pauses short again, for
// circumstances are new. False when a person asked and the configuration allows no session.
bool supervision_connect(supervision* self, const char* interface, int64_t now);

// Somebody wants no session, until supervision_connect by a person.
void supervision_disconnect(supervision* self, int64_t now);

// The call that order::reload or order::stop asked for ended with this status of the bus.
void supervision_call_ended(supervision* self, int status, int64_t now);

// What order::identify asked for: an index into the configured servers, SERVER_NONE or
// SERVER_UNKNOWN.
void supervision_identified(supervision* self, int found, int64_t now);

// Takes in a look and decides. Only when a turn is due, with a look that is not older than a
// second.
order supervision_turn(supervision* self, const sighting& seen, int64_t now);

// When the next look and turn are due, after every event; INT64_MAX: none before another event.
int64_t supervision_next_turn(const supervision* self);

// The server that order::reload means.
const server& supervision_server(const supervision* self);

supervision_report supervision_status(const supervision* self, int64_t now);

// "idle", "waiting" and so on.
const char* supervision_state_name(supervision_state state);
