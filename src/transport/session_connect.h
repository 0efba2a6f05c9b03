#pragma once

// Turns a cloud cycle's relay server, a name or an address and a port, into a live and identified
// connection, and back. Threads: the worker's; no lock is taken.

struct cloud_cycle_t;

// Resolves the server and tries each of its addresses once, TLS and handshake, until one accepts
// the device. Returns 0, also when the cycle is connected already; 9 when no address did; 100 for
// null. On success the cycle is connected and both its wishes to close are forgotten: a stop that
// arrives during the connect is lost.
int cloud_session_connect(cloud_cycle_t* cloudCycle);

// Closes the connection and forgets its heartbeats; a cycle that is disconnected already is only
// logged. Returns 0, or 100 for null.
int cloud_session_disconnect(cloud_cycle_t* cloudCycle);

// Steps that the module's tests reach.
namespace internal {

// One attempt at one address, dotted. Returns 0 or what failed; the connection is then closed.
int _cloud_session_connect_default_svr_local(cloud_cycle_t* cloudCycle, const char* ipAddr);

} // namespace internal
