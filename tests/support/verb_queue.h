#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

// A thread that does what it is told, one thing after the other: the inner life of a scripted
// peer. Signals are blocked in it: a SIGPIPE that arrives came from the code under test, and no
// child's end interrupts a wait.
class verb_queue {
public:
    verb_queue();
    ~verb_queue(); // drops what has not begun, waits for what has
    verb_queue(const verb_queue&) = delete;
    verb_queue& operator=(const verb_queue&) = delete;

    // Has `verb` done after all earlier ones; returns at once.
    void post(std::function<void()> verb);

    // The same, and waits for its result.
    template <class Verb>
    auto run(Verb verb) {
        auto task = std::make_shared<std::packaged_task<decltype(verb())()>>(std::move(verb));
        auto result = task->get_future();
        post([task] { (*task)(); });
        return result.get();
    }

private:
    void work();

    std::mutex mutex; // guards the next two
    std::deque<std::function<void()>> verbs;
    bool ended = false;
    std::condition_variable changed;
    std::thread thread;
};
