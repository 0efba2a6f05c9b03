#pragma once

#include <cstdint>

// The relay client task: a worker thread that runs one session. Starts it, asks it to
// stop, and restarts it toward another server. There is no default server and no stored one: until
// the first `reload` there is no session.
//
// Threads: everything here runs on the event loop's thread, except the worker itself. A worker owns
// the cycle it was started with and destroys it, whenever its session ends, also when a restart has
// put a newer worker in its place meanwhile. At most two workers that were let go wind up beside
// the current one: a further restart waits for the first of them to end. The controller's own
// pointer to the current cycle is shared with its worker, and guarded by a recursive lock.

// Result codes of this module, beside those of core/result.h; each is also the status that a ubus
// caller gets.
constexpr int TASK_NO_ADDRESS = 3;
constexpr int TASK_THREAD_FAILED = 5;
constexpr int TASK_START_FAILED = 6;
constexpr int TASK_STOP_FAILED = 7;
constexpr int TASK_RESTART_FAILED = 8;

// Makes the controller's lock. Once, before everything else here.
void task_controller_init();

// What `reload` asks for: a session toward that server, started or restarted, or with port 0 the
// end of the session. Returns 0, 3 without address, or the code of what failed.
int cloudRelayClientReload(const char* addrStr, uint32_t port);

// Starts a session, or restarts it, which takes three seconds more, longer while two earlier
// workers are held up by the resolver. The session connects
// afterwards, on its own thread. Returns 0; 100 for a null address or a port above 65535; 6 or 8
// when the start or the restart failed.
int swCloudRelayClientTaskStart(const char* ipaddr, uint32_t port);

// Asks the session, if any, to end; does not wait for it. Returns 0 or 7.
int swCloudRelayClientTaskStop();
