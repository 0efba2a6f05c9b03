// A device's answer: an HTTP/1.0 or 1.1 response as its web server wrote it, until it closed.
//
// The packet's length says where it ends, so a body without a length of its own gets one here and
// the user's connection can be kept.
#pragma once

#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace relay {

namespace http = boost::beast::http;

using AnswerParser = http::response_parser<http::buffer_body>;
using AnswerHead = http::response_header<>;

constexpr std::size_t max_answer_head_bytes = 64 << 10;

enum class HeadState {
    incomplete,
    interim, // 1xx: another one follows
    complete,
    broken,
};

// Takes the next head out of `text`, and reads it into a new `parser`.
HeadState take_answer_head(std::string& text, bool to_head, std::optional<AnswerParser>& parser);

enum class BodyKind {
    none,    // HEAD, 1xx, 204, 304
    counted, // so many bytes
    chunked, // the answer's own chunks
};

struct BodyFraming {
    BodyKind kind = BodyKind::none;
    std::uint64_t bytes = 0; // of `counted`
};

// How the body of an answer is framed; `bytes_behind_head` came or will come in the packet. Nothing
// when the answer is shorter than it says.
std::optional<BodyFraming> framing_of(const AnswerParser& parser, bool to_head,
                                      std::uint64_t bytes_behind_head);

// Where the device believes to be reached, and where the user reaches it.
struct Addresses {
    std::string_view device_host;
    std::string_view public_scheme;
    std::string_view public_host; // with port
};

// A Location for the user: the device's own address becomes the public one.
std::string public_location(std::string_view location, const Addresses& addresses);

// Whether a redirect leads back to what was asked for, over the device's own TLS: through the relay
// the user would come to the very same page, for ever.
bool leads_to_own_https(const AnswerHead& head, std::string_view target,
                        std::string_view device_host);

// A Set-Cookie for the user, without its Domain: a device must not set cookies for its neighbours,
// which share the base domain with it. Over TLS it is for TLS only.
std::string own_cookie(std::string_view cookie, bool over_tls);

struct UserHeadOptions {
    BodyFraming framing;
    bool keep_alive;
    bool may_chunk; // HTTP/1.1; without, a chunked body ends with the connection
};

// The head that the user gets, empty line included.
std::string user_head(const AnswerHead& head, const UserHeadOptions& options,
                      const Addresses& addresses);

// Turns an answer's body into what the user gets, piece by piece. Owned by one user's connection.
class AnswerBody {
public:
    // `parser` has read the head and outlives this.
    AnswerBody(AnswerParser& parser, BodyFraming framing, bool may_chunk);

    // Takes the next bytes of the packet. False when the chunks in it are broken.
    bool convert(std::string_view bytes);
    // What became of them; valid until the next convert().
    std::string_view output() const { return output_; }
    bool is_done() const;
    // Whether an orderly end of the user's connection is all that tells him that the body is whole.
    bool ends_with_connection() const { return framing_.kind == BodyKind::chunked && !may_chunk_; }

private:
    bool decode_chunks(std::string_view bytes);

    AnswerParser& parser_;
    BodyFraming framing_; // bytes: still to come
    bool may_chunk_;
    std::string undecoded_;
    std::string decoded_;
    std::string_view output_;
};

} // namespace relay
