// Time limits of connections and requests, looked after by one timer.
//
// There are thousands of them, nearly all are moved or withdrawn before they pass, and none needs
// to be exact: so moving one is an assignment, and a sweep every `sweep_interval` finds those that
// have passed. One that throws is logged, and the sweeps go on, without memory too. Owned by the
// relay; used on its thread.
#pragma once

#include "base/asio.h"
#include "base/reserved.h"

#include <boost/intrusive/list.hpp>

#include <functional>

namespace relay {

class Deadlines;

// One limit. Its owner sets and clears it; after it passed it is cleared and `on_passed` is called,
// which may destroy it.
class Deadline : public boost::intrusive::list_base_hook<> {
public:
    Deadline(Deadlines& deadlines, std::function<void()> on_passed);
    ~Deadline();
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

    void set_at(Clock::time_point time) { time_ = time; }
    void set(Clock::duration from_now) { time_ = Clock::now() + from_now; }
    void clear() { time_ = Clock::time_point::max(); }
    Clock::time_point time() const { return time_; }

private:
    friend class Deadlines;
    Deadlines& deadlines_;
    Clock::time_point time_ = Clock::time_point::max();
    std::function<void()> on_passed_;
};

class Deadlines {
public:
    explicit Deadlines(const Executor& executor) : timer_(executor) {}

    // Sweeps until stop(); `each_time` is called after each sweep.
    void start(std::function<void()> each_time);
    void stop() {
        stopped_ = true; // a sweep that is due already is none any more
        timer_.cancel();
    }

private:
    friend class Deadline;
    using List = boost::intrusive::list<Deadline>;

    void wait();
    void sweep();

    Timer timer_;
    const std::shared_ptr<ReservedMemory> memory_ = std::make_shared<ReservedMemory>();
    bool stopped_ = false;
    List list_;
    List::iterator next_ = list_.end(); // where the sweep goes on; kept valid by ~Deadline
    std::function<void()> each_time_;
};

} // namespace relay
