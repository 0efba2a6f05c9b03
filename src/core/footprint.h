#pragma once

// Keeping resident memory small.

// Has large blocks mapped each by itself, so that a relayed answer grows without being copied and
// leaves nothing behind. On the main thread, before any other exists.
void set_up_memory();

// Gives back what the connect needed and an idle session does not: free heap, and the clean pages
// of the program's and its libraries' code and constants, most of which only ran to set TLS up.
// What is used again comes back from the page cache or from flash. Threads: any.
void release_idle_memory();
