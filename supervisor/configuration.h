#pragma once

#include <cstddef>
#include <cstdint>

#include "server.h"

// What the owner wants: section `supervisor` of /etc/config/cloud_relay.
//
//   config supervisor 'supervisor'
//       option enabled '1'
//       list server 'relay.example.net:8443'
//
// A mistake costs one line on the log, which names the option and its value, says what is allowed
// and what is taken instead; the rest of the file is still used. Main thread.

struct uci_package;

struct configuration {
    bool enabled;                // `enabled`, 1
    server servers[SERVERS_MAX]; // `server`, a list, in order of preference
    size_t server_count;
    int64_t boot_delay_ms;       // `boot_delay`, 10 s: most of the random wait at boot
    int64_t pause_min_ms;        // `pause_min`, 1 s: ceiling of the first pause
    int64_t pause_max_ms;        // `pause_max`, 300 s: ceiling of every pause; never below the min
    int64_t success_after_ms;    // `success_after`, 60 s: a session that lived so long was good
    int64_t connect_interval_ms; // `connect_interval`, 5 s: `connect` takes effect once in it
    int64_t object_timeout_ms;   // `object_timeout`, 30 s: how long the daemon may be off the bus
    int64_t failures_per_server; // `failures_per_server`, 3: then the next one's turn comes
};

// What holds where the file says nothing: everything above, and no server.
configuration configuration_defaults();

// Reads the file anew, `folder`/cloud_relay, with changes that are not committed yet; null means
// /etc/config. False, *out being left alone, when it cannot be read or parsed.
bool configuration_read(const char* folder, configuration* out);

// What a package that libuci has read says.
configuration configuration_of(const uci_package* package);

// The index of a listed server, or server_count.
size_t configuration_find(const configuration& config, const server& asked);
