#include "front/answer_relay.h"

#include "front/answer.h"

#include <vector>

namespace relay {
namespace {

constexpr std::size_t write_bytes = 256 << 10;

std::string_view view(const std::vector<char>& bytes) {
    return {bytes.data(), bytes.size()};
}

PageReason unusable(std::string text) {
    return {502, std::move(text), "unusable_answer"};
}

// A body that breaks off ends the connection, so that the user does not take it for whole.
bool cut_off(Turn& turn, UserStream& stream, const AnswerBody& body) {
    turn.page.note = "cut_off";
    if (body.ends_with_connection())
        stream.reset();
    return false;
}

// Head and first bytes leave together, so a small answer is one write.
Awaitable<bool> relay_body(Turn& turn, Exchange& exchange, UserStream& stream,
                           std::chrono::seconds patience, AnswerBody& body, std::string head,
                           std::string_view rest) {
    std::vector<char> bytes;
    while (true) {
        const auto piece = rest.substr(0, write_bytes);
        rest.remove_prefix(piece.size());
        const bool is_sound = body.convert(piece);
        const bool is_short = !body.is_done() && rest.empty() && exchange.is_drained();
        if ((!is_sound || is_short) && !head.empty()) {
            turn.page = unusable("The device's answer breaks off.");
            co_return true;
        }
        if (!is_sound)
            co_return cut_off(turn, stream, body);
        const bool written = co_await write(turn, stream, patience, head, body.output());
        if (!written || body.is_done())
            co_return written;
        head.clear();
        if (!rest.empty())
            continue;
        const bool more = co_await exchange.take(bytes);
        if (!more)
            co_return cut_off(turn, stream, body);
        rest = view(bytes);
    }
}

} // namespace

// The answer's head is read past interim ones.
Awaitable<bool> relay_answer(Turn& turn, Exchange& exchange, UserStream& stream,
                             const FrontOptions& options) {
    std::string text;
    std::vector<char> bytes;
    std::uint64_t left = exchange.answer_size(); // behind `text`
    std::optional<AnswerParser> parser;
    while (true) {
        const auto state = take_answer_head(text, turn.to_head, parser);
        if (state == HeadState::complete)
            break;
        if (state == HeadState::broken) {
            turn.page = unusable("The device's answer is no valid HTTP response.");
            co_return true;
        }
        if (state == HeadState::incomplete) {
            const bool more = co_await exchange.take(bytes);
            if (!more || text.size() > max_answer_head_bytes) {
                turn.page = unusable(text.empty() && exchange.answer_size() == 0
                                         ? "The device's web server closed without an answer."
                                         : "The device's answer has no complete header.");
                co_return true;
            }
            text += view(bytes);
            left -= bytes.size();
        }
    }
    const auto framing = framing_of(*parser, turn.to_head, text.size() + left);
    if (leads_to_own_https(parser->get(), turn.route->target, options.device_host)) {
        turn.page = {502,
                     "The device sends every visitor on to its own HTTPS address, which is not "
                     "reached through the relay. Let the device serve plain HTTP to the relay.",
                     "https_redirect"};
        co_return true;
    }
    if (!framing) {
        turn.page = unusable("The device's answer is shorter than it says.");
        co_return true;
    }
    const bool may_chunk = turn.parser.get().version() == 11;
    turn.keep_alive = turn.keep_alive && (framing->kind != BodyKind::chunked || may_chunk);
    turn.status = parser->get().result_int();
    auto head = user_head(parser->get(), {*framing, turn.keep_alive, may_chunk},
                          {options.device_host, turn.scheme, turn.route->host});
    AnswerBody body(*parser, *framing, may_chunk);
    co_return co_await relay_body(turn, exchange, stream, options.patience, body, std::move(head),
                                  text);
}

} // namespace relay
