#include "tool/deadline.h"

#include <sys/time.h>

#include "libubus.h"

namespace bus {

namespace {

constexpr char message[] = "Command failed: Request timed out\n";

// Nothing but what is safe in a signal handler.
void on_alarm(int) {
    const ssize_t written = write(STDERR_FILENO, message, sizeof(message) - 1);
    (void)written;
    _exit(UBUS_STATUS_TIMEOUT);
}

} // namespace

void deadline_set(int milliseconds) {
    struct sigaction action = {};
    action.sa_handler = on_alarm;
    sigaction(SIGALRM, &action, nullptr);
    itimerval timer = {};
    timer.it_value.tv_sec = milliseconds / 1000;
    timer.it_value.tv_usec = suseconds_t{milliseconds % 1000} * 1000;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

} // namespace bus
