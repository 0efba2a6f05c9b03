// One user's connection: reads requests one after the other and answers each, with what the device
// says or with a page of the relay.
#pragma once

#include "base/deadlines.h"
#include "front/answer.h"
#include "front/front.h"
#include "front/request.h"
#include "front/user_stream.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace relay {

class UserConnection : public std::enable_shared_from_this<UserConnection> {
public:
    UserConnection(Front& front, const Front::Services& services, Crowd& crowd, Source peer,
                   Socket socket, TlsContext tls);

    Awaitable<void> run();
    void close() { stream_.close(); }
    // Between two requests nothing is lost when the connection ends.
    bool is_idle() const { return idle_; }

private:
    // What is known of the request under way.
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
        unsigned status = 0;          // as sent
        std::uint64_t body_bytes = 0; // of the request, as read
        std::uint64_t sent_bytes = 0;
    };

    Awaitable<bool> learn_peer();
    Awaitable<bool> serve_one();
    Awaitable<bool> read_head(Turn& turn);
    Awaitable<bool> read_body(Turn& turn);
    Awaitable<bool> read_more();
    Awaitable<bool> relay(Turn& turn);
    Awaitable<bool> relay_answer(Turn& turn, Exchange& exchange);
    Awaitable<bool> relay_body(Turn& turn, Exchange& exchange, AnswerBody& body, std::string head,
                               std::string_view rest);
    bool cut_off(Turn& turn, const AnswerBody& body);
    Awaitable<bool> answer_page(Turn& turn);
    Awaitable<bool> write(Turn& turn, std::string_view first, std::string_view second = {});
    Awaitable<void> linger();

    bool parse_head(Turn& turn, std::size_t head_bytes);
    void identify(Turn& turn);
    std::optional<PageReason> route(Turn& turn);
    static bool hold_body(Turn& turn);
    std::shared_ptr<Exchange> submit(Turn& turn);
    void account(const Turn& turn);

    Front& front_;
    Front::Services services_;
    const FrontOptions& options_;
    UserStream stream_;
    Deadline deadline_;
    Source peer_;
    Guest guest_;       // during a request, of its user; else of the peer
    std::string input_; // read, not yet consumed
    bool idle_ = true;
    bool is_first_ = true;
    bool unread_input_ = false; // of a request that was refused half-way
};

} // namespace relay
