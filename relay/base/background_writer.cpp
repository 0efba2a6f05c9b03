#include "base/background_writer.h"

#include "base/guarded.h"

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

namespace relay {
namespace {

constexpr std::size_t most_bytes = 1 << 20;

// The relay's signals are for its event loop.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &former_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

private:
    sigset_t former_{};
};

} // namespace

struct BackgroundWriter::State {
    explicit State(Sink its_sink) : sink(std::move(its_sink)) {}

    const Sink sink; // called by the thread alone
    std::mutex mutex;
    std::condition_variable changed;
    std::string waiting;
    bool is_writing = false;
    bool is_ending = false;
};

BackgroundWriter::BackgroundWriter(Sink sink) : state_(std::make_shared<State>(std::move(sink))) {
    const SignalsBlocked blocked; // in the thread
    std::thread(run, state_).detach();
}

BackgroundWriter::~BackgroundWriter() {
    const std::lock_guard lock(state_->mutex);
    state_->is_ending = true;
    state_->changed.notify_all();
}

bool BackgroundWriter::add(std::string_view lines) noexcept {
    const std::lock_guard lock(state_->mutex);
    if (state_->waiting.size() + lines.size() > most_bytes)
        return false;
    try {
        state_->waiting += lines;
    } catch (const std::bad_alloc&) {
        return false;
    }
    state_->changed.notify_all();
    return true;
}

bool BackgroundWriter::finish(std::chrono::milliseconds patience) {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(
        lock, patience, [this] { return state_->waiting.empty() && !state_->is_writing; });
}

void BackgroundWriter::run(const std::shared_ptr<State>& state) {
    std::string lines;
    std::unique_lock lock(state->mutex);
    while (true) {
        state->changed.wait(lock, [&] { return !state->waiting.empty() || state->is_ending; });
        if (state->waiting.empty())
            return;
        lines.clear();
        lines.swap(state->waiting);
        state->is_writing = true;
        lock.unlock();
        guarded("a log cannot be written", [&] { state->sink(lines); });
        lock.lock();
        state->is_writing = false;
        state->changed.notify_all();
    }
}

} // namespace relay
