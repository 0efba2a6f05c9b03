#include "front/request_reader.h"

#include "base/text.h"
#include "front/pace.h"

namespace relay {
namespace {

constexpr std::size_t read_bytes = 16 << 10;
constexpr std::size_t linger_bytes = 1 << 20;

constexpr std::string_view go_on = "HTTP/1.1 100 Continue\r\n\r\n";

// False when the share of the user's address is used up.
bool hold_body(Turn& turn) {
    Reservation& held = *turn.body_memory;
    const std::size_t bytes = turn.parser.get().body().capacity();
    if (bytes > held.bytes() && !held.may_grow(bytes - held.bytes()))
        return false;
    held.resize(bytes);
    return true;
}

} // namespace

Awaitable<bool> RequestReader::read_more() {
    const std::size_t before = input_.size();
    input_.resize(before + read_bytes);
    const auto count = co_await stream_.read_some(asio::buffer(input_.data() + before, read_bytes));
    input_.resize(before + count);
    co_return count > 0;
}

Awaitable<bool> RequestReader::read_head(Turn& turn) {
    turn.parser.header_limit(static_cast<std::uint32_t>(options_.max_header_bytes));
    turn.parser.body_limit(options_.max_body_bytes);
    stream_.deadline().set(is_first_ ? options_.patience : options_.idle);
    is_first_ = false;
    std::size_t checked = 0;
    while (true) {
        if (checked == 0)
            input_.erase(0, input_.find_first_not_of("\r\n")); // empty lines before a request
        if (!input_.empty() && idle_) {
            idle_ = false;
            turn.began = Clock::now();
            stream_.deadline().set_at(turn.began + options_.patience);
        }
        const auto look = look_for_head(input_, checked, options_.max_header_bytes);
        turn.page = look.page;
        turn.unread_input = turn.page.status != 0;
        if (turn.unread_input)
            co_return true;
        if (look.head_bytes > 0)
            co_return parse_head(turn, look.head_bytes);
        checked = input_.size();
        if (idle_ && is_draining_)
            co_return false;
        const bool read = co_await read_more();
        if (!read)
            co_return false;
    }
}

bool RequestReader::parse_head(Turn& turn, std::size_t head_bytes) {
    error_code error;
    turn.head = input_.substr(0, head_bytes);
    turn.page = relay::read_head(turn.parser, turn.head, error);
    input_.erase(0, head_bytes);
    turn.to_head = turn.parser.get().method() == http::verb::head;
    turn.unread_input = turn.page.status != 0 || !turn.parser.is_done();
    // A head that is broken has no answer to this.
    turn.keep_alive = !error && turn.parser.keep_alive() && !is_draining_;
    return true;
}

Awaitable<bool> RequestReader::read_body(Turn& turn) {
    if (turn.parser.is_done())
        co_return true;
    const std::string_view expected = turn.parser.get()[http::field::expect];
    if (turn.parser.get().version() == 11 && input_.empty() &&
        equals_ignoring_case(expected, "100-continue")) {
        const bool written = co_await write(turn, stream_, options_.patience, go_on);
        if (!written)
            co_return false;
    }
    turn.parser.eager(true);
    Pace pace(options_.patience, Clock::now());
    while (true) {
        std::size_t taken = 0;
        const auto reason = take_body(turn.parser, input_, options_.max_header_bytes, taken);
        turn.body_bytes += taken;
        if (!hold_body(turn)) {
            turn.page = no_memory();
            co_return true;
        }
        if (turn.parser.is_done())
            break;
        if (reason) {
            turn.page = *reason;
            co_return true;
        }
        // What surrounds chunks does not count.
        stream_.deadline().set_at(pace.due(turn.parser.get().body().size(), Clock::now()));
        const bool read = co_await read_more();
        if (!read)
            co_return false;
    }
    turn.unread_input = false;
    turn.keep_alive = turn.parser.keep_alive() && !is_draining_;
    co_return true;
}

Awaitable<void> RequestReader::linger() {
    std::size_t received = 0;
    bool read = true;
    while (read && received < linger_bytes) {
        input_.clear();
        read = co_await read_more();
        received += input_.size();
    }
}

} // namespace relay
