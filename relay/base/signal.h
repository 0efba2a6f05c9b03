// A wake-up for one coroutine that waits for another one to have done something.
#pragma once

#include "base/asio.h"

namespace relay {

// At most one coroutine waits at a time, on the thread of the executor. A notify() without a waiter
// is forgotten: the waiter looks at its condition before and after each wait.
class Signal {
public:
    explicit Signal(const Executor& executor) : timer_(executor, Clock::time_point::max()) {}

    // Waits for notify(), or until `limit`.
    Awaitable<void> wait(Clock::time_point limit = Clock::time_point::max()) {
        error_code ignored;
        if (timer_.expiry() != limit)
            timer_.expires_at(limit);
        co_await timer_.async_wait(into(ignored));
    }

    void notify() { timer_.cancel(); }

private:
    Timer timer_;
};

} // namespace relay
