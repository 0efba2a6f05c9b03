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
    void add_reply(std::string packet);
    // `held` is given back when the request has been written.
    void add_request(std::string packet, std::uint16_t id, Reservation held);

    bool is_empty() const { return rest().empty() && replies_.empty() && requests_.empty(); }
    std::size_t replies() const { return replies_.size(); } // that have not begun
    std::size_t bytes() const { return bytes_; }            // not written yet

    // What is to be written next; it stays where it is until written().
    std::string_view next();
    // So many bytes of next() have been written. The ID of the request that this was the end of.
    std::optional<std::uint16_t> written(std::size_t bytes);

private:
    struct Request {
        std::string packet;
        std::uint16_t id;
        Reservation held;
    };

    const std::string& current() const { return request_ ? request_->packet : reply_; }
    std::string_view rest() const { return std::string_view(current()).substr(written_); }

    std::deque<std::string> replies_;
    std::deque<Request> requests_;
    std::optional<Request> request_; // being written, or else:
    std::string reply_;
    std::size_t written_ = 0; // of that one
    std::size_t bytes_ = 0;
};

} // namespace relay
