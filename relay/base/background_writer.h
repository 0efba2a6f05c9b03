// Takes lines off the event loop's thread: a disk that hangs, or a reader that stops, must not stop
// the relay.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace relay {

// Has one thread, which ends with it once all is written. Used on any thread.
class BackgroundWriter {
public:
    // Called on the writer's thread with all that was added since the last call.
    using Sink = std::function<void(std::string_view lines)>;

    // Throws std::system_error when no thread can be started.
    explicit BackgroundWriter(Sink sink);
    ~BackgroundWriter(); // waits for nothing: what is left is written, and then the sink goes
    BackgroundWriter(const BackgroundWriter&) = delete;
    BackgroundWriter& operator=(const BackgroundWriter&) = delete;

    // False, and nothing is added, when 1 MiB waits already or memory is short.
    [[nodiscard]] bool add(std::string_view lines) noexcept;
    // Whether all was written within that time.
    bool finish(std::chrono::milliseconds patience);

private:
    struct State;
    static void run(const std::shared_ptr<State>& state);

    const std::shared_ptr<State> state_; // with the thread
};

} // namespace relay
