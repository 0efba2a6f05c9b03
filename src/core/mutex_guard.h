#pragma once

#include <pthread.h>

// Holds a mutex until the end of the block.
struct mutex_guard {
    explicit mutex_guard(pthread_mutex_t* held) : mutex(held) { pthread_mutex_lock(mutex); }
    ~mutex_guard() { pthread_mutex_unlock(mutex); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

    pthread_mutex_t* mutex;
};

// Initialises a mutex that its holder may take again.
inline void recursive_mutex_init(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}
