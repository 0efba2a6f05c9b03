#pragma once

#include <cstddef>

// Keeping the daemon's memory small, and seeing how much the router has left.

// Has large blocks mapped each by itself, so that a relayed answer grows without being copied and
// leaves nothing behind. On the main thread, before any other exists.
void set_up_memory();

// Gives back the free heap that a connect needed and an idle session does not. Threads: any.
void release_idle_memory();

// Bytes that the kernel could still give out without swapping, /proc/meminfo's MemAvailable; the
// largest number when it cannot be read. Threads: any.
size_t available_memory();
