#pragma once

#include <cstdint>
#include <pthread.h>

// Holds a mutex until the end of the block.
struct mutex_guard {
    explicit mutex_guard(pthread_mutex_t* held) : mutex(held) { pthread_mutex_lock(mutex); }
    ~mutex_guard() { pthread_mutex_unlock(mutex); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

    pthread_mutex_t* mutex;
};

// Holds a mutex that another thread may keep for long, or for ever, until the end of the block.
// Waits for it at most `limit` milliseconds, and no longer than the calling thread's work is wanted
// (core/wanted.h); `isHeld` tells whether it was got, errno is EBUSY when it was not.
struct bounded_mutex_guard {
    bounded_mutex_guard(pthread_mutex_t* wanted, int64_t limit);
    ~bounded_mutex_guard() { release(); }
    bounded_mutex_guard(const bounded_mutex_guard&) = delete;
    bounded_mutex_guard& operator=(const bounded_mutex_guard&) = delete;

    void release() {
        if (isHeld) {
            pthread_mutex_unlock(mutex);
            isHeld = false;
        }
    }
    void keep() { isHeld = false; } // leaves the mutex locked for good

    pthread_mutex_t* mutex;
    bool isHeld;
};

// Initialises a mutex that its holder may take again.
inline void recursive_mutex_init(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}
