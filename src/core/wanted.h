#pragma once

#include <atomic>

// Whether anybody still wants what the calling thread works on. Two flags end a worker's waits: the
// event loop's thread sets them, the worker looks at them at least every LOOK_MS while it waits.
// docs/threads.md lists the waits, and the two that do not look: the resolver, and the lock of the
// remote request queue.
//
// Owner of the flags: the cloud cycle whose session the thread runs. Threads: each thread has its
// own pair of pointers; a thread that never set them (the event loop's) is always wanted.

// The longest that a wait goes on without looking at the flags. 25 wake-ups a second: the
// supervisor takes a worker that wakes 3 to 15 times a second for one whose session stands.
constexpr int LOOK_MS = 40;

struct thread_wishes_t {
    const std::atomic<int>* stop;  // non-zero: the session is to end; null for none
    const std::atomic<int>* letGo; // non-zero: a newer worker took this one's place; null for none
};

// Sets the calling thread's flags. They must outlive their use: clear them ({}) before their owner
// goes.
void thread_wishes_set(thread_wishes_t wishes);

// True once the calling thread's session is to end, or the thread was let go: no further exchange
// is begun, and waits for the web server end.
bool is_stop_wanted();

// True once the calling thread was let go: every wait ends.
bool is_let_go();
