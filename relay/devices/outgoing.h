// The packets on their way to one device: which one is being written, and what follows it.
//
// Replies pass the requests that wait, so that an upload delays a heartbeat by one packet at most;
// a packet that has begun is written to its end. Owned by the device's session; used on its thread.
#pragma once

#include "base/memory_budget.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace relay {

class Outgoing {
public:
    explicit Outgoing(MemoryBudget& budget) : held_(budget) {}

    void add_reply(std::string packet);
    void add_request(std::string packet, std::uint16_t id);

    bool is_empty() const { return rest().empty() && replies_.empty() && requests_.empty(); }
    std::size_t replies() const { return replies_.size(); } // that have not begun

    // What is to be written next; it stays where it is until written().
    std::string_view next();
    // So many bytes of next() have been written. The ID of the request that this was the end of.
    std::optional<std::uint16_t> written(std::size_t bytes);

private:
    struct Request {
        std::string packet;
        std::uint16_t id;
    };

    std::string_view rest() const { return std::string_view(packet_).substr(written_); }
    void hold(std::size_t bytes) { held_.resize(held_.bytes() + bytes); }

    std::deque<std::string> replies_;
    std::deque<Request> requests_;
    std::string packet_;              // being written
    std::optional<std::uint16_t> id_; // of the request in it
    std::size_t written_ = 0;         // of it
    Reservation held_;
};

} // namespace relay
