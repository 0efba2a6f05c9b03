#include "support/verb_queue.h"

#include <csignal>

verb_queue::verb_queue() : thread([this] { work(); }) {}

verb_queue::~verb_queue() {
    {
        std::lock_guard guard(mutex);
        ended = true;
        verbs.clear();
    }
    changed.notify_one();
    thread.join();
}

void verb_queue::post(std::function<void()> verb) {
    {
        std::lock_guard guard(mutex);
        verbs.push_back(std::move(verb));
    }
    changed.notify_one();
}

void verb_queue::work() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (;;) {
        std::function<void()> verb;
        {
            std::unique_lock lock(mutex);
            changed.wait(lock, [this] { return ended || !verbs.empty(); });
            if (verbs.empty()) {
                return;
            }
            verb = std::move(verbs.front());
            verbs.pop_front();
        }
        verb();
    }
}
