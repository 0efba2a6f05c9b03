// A device's answer, from the body of its packet to what the user gets.
//
// Input: switches (8 bits: 1 the request was HEAD, 2 the user speaks HTTP/1.0), most bytes of one
// piece (8 bits), then the answer.

#include "front/answer.h"
#include "front/headers.h"
#include "front/request.h"
#include "fuzz.h"

#include <boost/asio/buffer.hpp>

namespace {

using namespace relay;

struct Relayed {
    bool is_whole = false;
    unsigned status = 0;
    std::string head;
    std::string body; // as it is framed
    BodyKind kind = BodyKind::none;
};

constexpr Addresses addresses{"127.0.0.1", "https", "device.relay.example:8443"};

// As a user's connection does it with an answer of `bytes` that comes in pieces.
Relayed relay_answer(std::string_view bytes, std::size_t slice, bool to_head, bool may_chunk) {
    Relayed result;
    std::string text;
    std::optional<AnswerParser> parser;
    HeadState state = HeadState::incomplete;
    while ((state = take_answer_head(text, to_head, parser)) != HeadState::complete) {
        if (state == HeadState::broken || (state == HeadState::incomplete && bytes.empty()))
            return result;
        if (state == HeadState::incomplete) {
            text += bytes.substr(0, slice);
            bytes.remove_prefix(std::min(bytes.size(), slice));
        }
    }
    const auto framing = framing_of(*parser, to_head, text.size() + bytes.size());
    if (!framing)
        return result;
    result.kind = framing->kind;
    result.status = parser->get().result_int();
    result.head = user_head(parser->get(), {*framing, true, may_chunk}, addresses);
    AnswerBody body(*parser, *framing, may_chunk);
    std::string_view piece = text;
    while (body.convert(piece)) {
        result.body += body.output();
        if (body.is_done() || bytes.empty()) {
            result.is_whole = body.is_done();
            break;
        }
        piece = bytes.substr(0, slice);
        bytes.remove_prefix(piece.size());
    }
    return result;
}

// The body that a user's program takes out of the answer; the answer is all that it reads.
std::string read_by_user(const Relayed& relayed, bool to_head) {
    http::response_parser<http::string_body> parser;
    parser.eager(true);
    parser.skip(to_head);
    parser.header_limit(1 << 20);
    parser.body_limit(boost::none);
    boost::system::error_code error;
    const std::string answer = relayed.head + relayed.body;
    const auto taken = parser.put(boost::asio::buffer(answer), error);
    REQUIRE(!error);
    REQUIRE(parser.is_done() && taken == answer.size());
    REQUIRE(parser.get().result_int() == relayed.status);
    REQUIRE(parser.get().count(http::field::connection) == 1);
    return parser.get().body();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const unsigned switches = input.byte();
    const bool to_head = (switches & 1) != 0;
    const bool may_chunk = (switches & 2) == 0;
    const std::size_t slice = input.byte() + std::size_t{1};
    const auto bytes = input.rest();

    const Relayed whole = relay_answer(bytes, bytes.size() + 1, to_head, may_chunk);
    const Relayed sliced = relay_answer(bytes, slice, to_head, may_chunk);
    REQUIRE(whole.is_whole == sliced.is_whole && whole.head == sliced.head);
    if (!whole.is_whole)
        return 0;
    REQUIRE(!check_head_bytes(whole.head, 0));
    if (whole.kind == BodyKind::chunked && !may_chunk)
        REQUIRE(whole.body == sliced.body); // until the connection's end
    else
        REQUIRE(read_by_user(whole, to_head) == read_by_user(sliced, to_head));
    return 0;
}
