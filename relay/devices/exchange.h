// One request to a device and its answer, between the user's connection, which reads the answer,
// and the device's session, which brings it.
//
// Shared by the two; either may lose interest first. The answer's bytes wait in a buffer of bounded
// size: when it is full the session waits, which holds up the device's whole connection, so the
// session bounds that in time (see room()).
#pragma once

#include "base/asio.h"
#include "base/deadlines.h"
#include "base/memory_budget.h"
#include "base/signal.h"
#include "devices/packet.h"

#include <span>
#include <string>
#include <vector>

namespace relay {

class Exchange {
public:
    enum class State {
        waiting,   // for the device to have fewer requests out
        out,       // sent, or being sent
        answering, // the answer's size is known, its bytes are coming
        complete,  // all its bytes are in the buffer or taken
        timed_out, // nobody answered in time
        gone,      // the session ended, or the answer could not be had
    };

    struct Surroundings {
        Executor executor;
        Deadlines& deadlines;
        MemoryBudget& budget;
        std::size_t buffer_bytes; // of answer
        Holders holders;
    };

    struct Packet {
        std::string bytes;
        Reservation held;
    };

    // A request larger than this is one that others wait for.
    static constexpr std::size_t large_bytes = 64 << 10;

    // `packet` is whole but for its ID, which the session fills in. It is given up when it has not
    // been sent for `time_to_wait`.
    Exchange(const Surroundings& surroundings, std::string packet, Clock::duration time_to_wait);

    State state() const { return state_; }
    bool is_open() const { return state_ == State::waiting || state_ == State::out; }

    // The user's side.

    Awaitable<State> answered(); // waits until the state is none of waiting and out
    std::size_t answer_size() const { return answer_size_; } // once answered
    // Swaps the bytes that have come into `bytes`, waiting for some. False at the answer's end.
    Awaitable<bool> take(std::vector<char>& bytes);
    // True when all of the answer has been taken.
    bool is_drained() const { return state_ == State::complete && buffer_.empty(); }
    // Nobody reads on: what still comes is dropped.
    void abandon();
    // Asked just before sending: a user who went away meanwhile is not worth the device's time.
    // Empty: there is always somebody.
    std::function<bool()> user_is_there;

    // The session's side.

    PacketType answer_type() const { return answer_type_; }        // what it may be answered with
    bool is_large() const { return packet_.size() > large_bytes; } // until sent
    Packet send_as(std::uint16_t id);
    void begin(std::size_t answer_size);
    void give(std::span<const char> bytes);
    bool is_full() const;
    // Waits until the user has taken bytes, or `limit`. False when the limit passed.
    Awaitable<bool> room(Clock::time_point limit);
    void complete();
    void fail(State state);

private:
    void settle(State state);

    State state_ = State::waiting;
    std::string packet_;
    const PacketType answer_type_;
    std::size_t answer_size_ = 0;
    std::vector<char> buffer_;
    std::size_t buffer_bytes_;
    bool abandoned_ = false;
    Reservation packet_held_;
    Reservation buffer_held_;
    Reservation taken_held_; // of what take() gave last
    Signal to_user_;
    Signal to_session_;
    Deadline deadline_;
};

} // namespace relay
