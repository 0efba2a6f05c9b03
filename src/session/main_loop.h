#pragma once

// The relay session itself. Threads: runs on the worker that calls it, until the session ends.

struct cloud_cycle_t;

// Connects the cycle once and turns its loop, at most 200 ms a turn, until either side wants the
// session closed. Returns the code of a connect that failed, else 0.
int cloud_cycle_start(cloud_cycle_t* cycle);
