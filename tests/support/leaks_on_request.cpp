// Part of the daemon in builds with the address sanitizer, whose leak check runs when a program
// ends: the daemon does not end by itself. SIGUSR2 makes a thread of its own look for leaks. That
// thread's name counts the looks; the report of what leaked goes where the sanitizer's go.

#include <sanitizer/lsan_interface.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>

namespace {

sigset_t request() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR2);
    return signals;
}

void* look_when_asked(void* /*unused*/) {
    const sigset_t signals = request();
    for (int looks = 0;; looks++) {
        char name[16]; // as long as a thread's name may be
        snprintf(name, sizeof name, "leak looks %d", looks);
        pthread_setname_np(pthread_self(), name);
        int signal = 0;
        while (sigwait(&signals, &signal) != 0) {
        }
        __lsan_do_recoverable_leak_check();
    }
}

// Before main, so that every thread blocks the signal but for the one that waits for it. Not under
// tests/torture, which counts blocks itself and every call besides.
__attribute__((constructor)) void wait_for_requests() {
    if (getenv("TORTURE_CONTROL") != nullptr) {
        return;
    }
    const sigset_t signals = request();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, look_when_asked, nullptr) == 0) {
        pthread_detach(thread);
    }
}

} // namespace
