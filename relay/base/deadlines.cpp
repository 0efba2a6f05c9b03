#include "base/deadlines.h"

#include "base/guarded.h"

namespace relay {
namespace {

// Limits are whole seconds; a quarter late is early enough, and four wake-ups a second cost
// nothing.
constexpr std::chrono::milliseconds sweep_interval{250};

} // namespace

Deadline::Deadline(Deadlines& deadlines, std::function<void()> on_passed)
    : deadlines_(deadlines), on_passed_(std::move(on_passed)) {
    deadlines_.list_.push_back(*this);
}

Deadline::~Deadline() {
    if (!is_linked())
        return; // the list has gone first: coroutines that never ended go with the context
    const auto self = Deadlines::List::s_iterator_to(*this);
    if (deadlines_.next_ == self)
        ++deadlines_.next_;
    deadlines_.list_.erase(self);
}

void Deadlines::start(std::function<void()> each_time) {
    each_time_ = std::move(each_time);
    wait();
}

void Deadlines::wait() {
    timer_.expires_after(sweep_interval);
    timer_.async_wait(reserved(memory_, [this](error_code error) {
        if (error || stopped_)
            return;
        sweep();
        guarded("a timer failed", each_time_);
        if (!stopped_)
            wait();
    }));
}

void Deadlines::sweep() {
    const auto now = Clock::now();
    next_ = list_.begin();
    while (next_ != list_.end()) {
        Deadline& deadline = *next_++;
        if (deadline.time_ > now)
            continue;
        deadline.clear();
        guarded("a time limit failed", [&deadline] {
            // A copy: the call may destroy the deadline and the function in it.
            const auto on_passed = deadline.on_passed_;
            on_passed();
        });
    }
}

} // namespace relay
