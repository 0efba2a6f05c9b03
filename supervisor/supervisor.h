#pragma once

// The program: ties the bus, the watch and the timer to the supervision, on the main thread, in one
// uloop.

// Runs until SIGTERM or SIGINT; a session that is up stays up. Returns the program's exit status.
int supervisor_run();
