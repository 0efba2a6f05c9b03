// Part of the daemon in builds with the address sanitizer, whose leak check runs when a program
// ends: the daemon does not end by itself. SIGUSR2 makes a thread of its own look for leaks and
// write one line to what was standard error at the start, which `dbg` may replace; the report of
// what leaked goes where the sanitizer's go.

#include <sanitizer/lsan_interface.h>

#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

int first_standard_error = -1;

sigset_t request() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR2);
    return signals;
}

void* look_when_asked(void* /*unused*/) {
    const sigset_t signals = request();
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) == 0) {
            __lsan_do_recoverable_leak_check();
            constexpr char answer[] = "looked for leaks\n";
            (void)!write(first_standard_error, answer, sizeof answer - 1);
        }
    }
}

// Before main, so that every thread blocks the signal but for the one that waits for it.
__attribute__((constructor)) void wait_for_requests() {
    constexpr int out_of_the_way = 100; // tests look at the lowest ones
    first_standard_error = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, out_of_the_way);
    const sigset_t signals = request();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, look_when_asked, nullptr) == 0) {
        pthread_setname_np(thread, "leak check");
        pthread_detach(thread);
    }
}

} // namespace
