#pragma once

// The control side's start-up. Threads: the main thread's alone.

// Prepares the task controller and the remote request queue, and runs the ubus event loop: returns
// only when that ends, or at once when something fails, which is logged.
void swCloudRelayClientInit();
