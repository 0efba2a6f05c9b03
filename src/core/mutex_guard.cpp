#include "core/mutex_guard.h"

#include <cerrno>
#include <unistd.h>

#include "core/clock.h"
#include "core/wanted.h"

namespace {

constexpr useconds_t RETRY_US = 20 * 1000;

} // namespace

// Polls: the C libraries of routers know no timed lock by the monotonic clock.
bounded_mutex_guard::bounded_mutex_guard(pthread_mutex_t* wanted, int64_t limit)
    : mutex(wanted), isHeld(pthread_mutex_trylock(wanted) == 0) {
    int64_t deadline = cloud_now_ms() + limit;
    while (!isHeld && !is_let_go() && cloud_now_ms() < deadline) {
        usleep(RETRY_US);
        isHeld = pthread_mutex_trylock(wanted) == 0;
    }
    if (!isHeld) {
        errno = EBUSY;
    }
}
