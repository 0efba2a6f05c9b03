#pragma once

#include "support/tls_peer.h"

struct cloud_cycle_t;

// A cloud cycle whose socket is connected to a relay that the test plays. Requires private
// namespaces, whose CA certificate it writes. Threads: the cycle is the creating thread's.
class relay_session {
public:
    relay_session();
    ~relay_session(); // destroys the cycle
    relay_session(const relay_session&) = delete;
    relay_session& operator=(const relay_session&) = delete;

    // Ends the connection at this end, as when it was lost.
    void disconnect();

    tls_peer relay;
    cloud_cycle_t* const cycle;
};
