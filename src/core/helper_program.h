#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Runs a command of the shell and takes the beginning of what it prints. A command that hangs must
// not hold the daemon: it runs in a process group of its own, all of which is killed when the time
// is up or when the calling thread is let go.
//
// Threads: any; the calling thread waits. Child processes are waited for here; the event loop's own
// waiting for children may come first, which is harmless.

// Runs `command` and reads at most `size` bytes of its standard output into `buffer`, then waits
// for its end; it may take `limit` milliseconds in all. Returns the number of bytes; 0 also for a
// command that had to be killed, whatever it printed: it was too slow, or its output could not be
// read, which is logged; what was read of it is zeroed. -1 with errno when it cannot be run.
ssize_t helper_program_read(const char* command, char* buffer, size_t size, int64_t limit);
