#pragma once

// What lower rooms tell the rooms above them: the queue and the transport call these, the session
// and the handshake room implement them. All run on the worker thread; a null cycle is logged and
// ignored.

struct cloud_cycle_t;

// A heartbeat is about to leave, its reply came, or the connection it counted for is gone.
void cloud_heartbeat_send_record(cloud_cycle_t* cycle);
void cloud_heartbeat_recv_record(cloud_cycle_t* cycle);
void cloud_heartbeat_reset_record(cloud_cycle_t* cycle);

// A message left or a request came; the session was connected.
void cloud_cycle_update_last_request_time(cloud_cycle_t* cycle);
void cloud_cycle_update_last_connected_time(cloud_cycle_t* cycle);

// The server is connected: runs the hello-cloud exchange on the cycle's cloud socket. Returns 0
// when the relay answered "err_code" 0; 100 for a null cycle or when no request could be built; 101
// when memory is short for the packet; -1 for an answer that is no acceptance; else the code of the
// send or receive that failed.
int cloud_handshake_svr(cloud_cycle_t* cycle);

// Forgets both wishes to close: a fresh connection starts without them.
void cloud_cycle_reset_notify_flags(cloud_cycle_t* cycle);
