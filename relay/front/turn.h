// One request of a user, from its first byte to its line in the access log.
#pragma once

#include "base/clients.h"
#include "base/memory_budget.h"
#include "front/request.h"
#include "front/user_stream.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace relay {

// What is known of it so far. Owned by its connection.
struct Turn {
    Clock::time_point began;
    RequestParser parser;
    Source user;
    std::string_view scheme; // that the user sees
    std::optional<Route> route;
    std::optional<Reservation> body_memory; // once it is known whose request it is
    std::string head;                       // as it came
    PageReason page; // what the relay answers itself, while status is not 0; and the note
    bool keep_alive = false;
    bool to_head = false;         // a HEAD request
    bool unread_input = false;    // it was refused before all of it had been read
    unsigned status = 0;          // as sent
    std::uint64_t body_bytes = 0; // of the request, as read
    std::uint64_t sent_bytes = 0;
};

// Sends both texts to the user, who has `patience`, and on top of it the time of the slowest user
// that is waited for. False: he is gone.
Awaitable<bool> write(Turn& turn, UserStream& stream, std::chrono::seconds patience,
                      std::string_view first, std::string_view second = {});

} // namespace relay
