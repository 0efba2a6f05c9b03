// Reads a user's requests from his connection, one after the other.
//
// A request is read whole before its device hears of it: the device handles one at a time, and a
// slow upload would hold up everybody else's.
#pragma once

#include "base/config.h"
#include "front/turn.h"

#include <string>

namespace relay {

// Owned by the connection, as what it is made of. What is refused leaves a page in the turn.
class RequestReader {
public:
    RequestReader(UserStream& stream, const FrontOptions& options, const bool& is_draining)
        : stream_(stream), options_(options), is_draining_(is_draining) {}

    // Sets up the turn and reads its head. False: the user is gone, or says nothing more.
    Awaitable<bool> read_head(Turn& turn);
    // Reads the body, into the memory that the turn's user has. False: the user is gone.
    Awaitable<bool> read_body(Turn& turn);
    // Takes in what a refused user still sends, for a while, so that he can read the page.
    Awaitable<void> linger();

    // The turn is over, and the next one has not begun.
    void wait_for_next() { idle_ = true; }
    bool is_idle() const { return idle_; }
    // Read, not yet consumed; what came before the first request goes in here.
    std::string& input() { return input_; }

private:
    Awaitable<bool> read_more();
    bool parse_head(Turn& turn, std::size_t head_bytes);

    UserStream& stream_;
    const FrontOptions& options_;
    const bool& is_draining_;
    std::string input_;
    bool idle_ = true;
    bool is_first_ = true;
};

} // namespace relay
