#pragma once

#include <atomic>

#include "core/wanted.h"

// The flags that end a worker's waits, for tests that play the worker and the one who steers it.
// adopt() makes them the calling thread's; they end with the object.
struct worker_wishes {
    worker_wishes() = default;
    ~worker_wishes() { thread_wishes_set({}); }
    worker_wishes(const worker_wishes&) = delete;
    worker_wishes& operator=(const worker_wishes&) = delete;

    void adopt() const { thread_wishes_set({&stop, &letGo}); }

    std::atomic<int> stop = 0;
    std::atomic<int> letGo = 0;
};
