#pragma once

#include <cstdint>

#include "supervision.h"

// The bus: our own object `cloud_relay`, the daemon's object `cloud_relayc`, and procd's `service`.
// Main thread, on uloop.
//
//   status       {"state": idle | waiting | connecting | connected | disabled, "server": host:port,
//                 "since": seconds the state has lasted, "attempts": reloads since the last
//                 success, "next_try_ms": milliseconds to the next attempt, 0 when none is planned,
//                 "last_reason": text}
//   connect      try now; without argument also ends an earlier `disconnect`. {"interface": name}
//                is what the hotplug script says: that interface came up. Status 8 (operation not
//                supported) when the configuration allows no session and no interface is named.
//   disconnect   end the session, and begin none until `connect`
//   reload       read the configuration anew
//
// A lost connection is made again, once a second until it succeeds. Calls of the daemon do not
// block: its `reload` takes three seconds where it restarts a session.

constexpr char DAEMON_OBJECT[] = "cloud_relayc";
constexpr char PROCD_SERVICE[] = "cloud_relay";         // the init script's name
constexpr char PROCD_INSTANCE[] = "cloud_relay_client"; // the daemon's instance in it

// Who is told; all members are set, and called from uloop only.
struct bus_listener {
    void (*on_presence)(presence object);      // of the daemon's object
    void (*on_call_ended)(int status);         // of bus_reload or bus_stop; status of the bus
    bool (*on_connect)(const char* interface); // null without; false: not allowed
    void (*on_disconnect)();
    void (*on_reload)();
    supervision_report (*on_status)();
};

// Connects, or begins to try. The listener must outlive the bus.
void bus_open(const bus_listener* told);

// Leaves the bus; open calls are forgotten.
void bus_close();

// Call the daemon; one call at a time. on_call_ended follows, always, and not before this has
// returned: with UBUS_STATUS_TIMEOUT when there is no answer within 15 seconds.
void bus_reload(const server& toward);
void bus_stop();

// Where procd runs, has it kill the daemon, which its respawn then starts anew: the method `signal`
// of procd's object `service`, with SIGKILL, as the daemon does not end for less. The rest of the
// service, this program above all, is left alone. Says on the log what was done.
void bus_restart_daemon();
