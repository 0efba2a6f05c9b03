#include "front/answer.h"

#include "base/text.h"
#include "front/headers.h"
#include "front/urls.h"

#include <array>
#include <charconv>

namespace relay {
namespace {

bool is_own_host(std::string_view host, std::string_view device_host) {
    return equals_ignoring_case(host, host_of(device_host)) ||
           equals_ignoring_case(host, "localhost") || host == "127.0.0.1";
}

std::string chunk_head(std::size_t bytes) {
    char digits[2 * sizeof bytes];
    const auto end = std::to_chars(digits, digits + sizeof digits, bytes, 16).ptr;
    return std::string(digits, end) + "\r\n";
}

std::vector<Header> headers_of(const AnswerHead& head) {
    std::vector<Header> headers;
    for (const auto& field : head)
        headers.push_back({field.name_string(), field.value()});
    return headers;
}

} // namespace

HeadState take_answer_head(std::string& text, bool to_head, std::optional<AnswerParser>& parser) {
    const auto end = text.find(head_end);
    if (end == std::string::npos)
        return HeadState::incomplete;
    boost::system::error_code error;
    parser.emplace();
    parser->body_limit(boost::none);
    parser->header_limit(max_answer_head_bytes);
    parser->skip(to_head);
    parser->put(boost::asio::buffer(text.data(), end + head_end.size()), error);
    text.erase(0, end + head_end.size());
    const unsigned status = parser->get().result_int();
    if (error || !parser->is_header_done() || status < 100 || status > 599 || status == 101)
        return HeadState::broken;
    return status / 100 == 1 ? HeadState::interim : HeadState::complete;
}

std::optional<BodyFraming> framing_of(const AnswerParser& parser, bool to_head,
                                      std::uint64_t bytes_behind_head) {
    const unsigned status = parser.get().result_int();
    if (to_head || status / 100 == 1 || status == 204 || status == 304)
        return BodyFraming{};
    if (parser.chunked())
        return BodyFraming{BodyKind::chunked, 0};
    const auto length = parser.content_length();
    if (!length)
        return BodyFraming{BodyKind::counted, bytes_behind_head};
    if (*length > bytes_behind_head)
        return std::nullopt;
    return BodyFraming{BodyKind::counted, *length};
}

std::string public_location(std::string_view location, const Addresses& addresses) {
    const auto url = url_parts(location);
    if (!url || !is_own_host(url->host, addresses.device_host))
        return std::string(location);
    std::string result(addresses.public_scheme);
    result += "://";
    result += addresses.public_host;
    return result += url->rest;
}

bool leads_to_own_https(const AnswerHead& head, std::string_view target,
                        std::string_view device_host) {
    const auto url =
        head.result_int() / 100 == 3 ? url_parts(head[http::field::location]) : std::nullopt;
    return url && equals_ignoring_case(url->scheme, "https") &&
           is_own_host(url->host, device_host) && (url->rest.empty() ? "/" : url->rest) == target;
}

std::string own_cookie(std::string_view cookie, bool over_tls) {
    auto end = std::min(cookie.find(';'), cookie.size());
    std::string result(cookie.substr(0, end)); // name and value, whatever the name is
    bool is_secure = false;
    while (end < cookie.size()) {
        cookie.remove_prefix(end + 1);
        end = std::min(cookie.find(';'), cookie.size());
        const auto attribute = cookie.substr(0, end);
        const auto name = trimmed(attribute.substr(0, attribute.find('=')));
        is_secure = is_secure || equals_ignoring_case(name, "secure");
        if (!equals_ignoring_case(name, "domain"))
            result.append(";").append(attribute);
    }
    return over_tls && !is_secure ? result + "; Secure" : result;
}

std::string user_head(const AnswerHead& head, const UserHeadOptions& options,
                      const Addresses& addresses) {
    std::string text = "HTTP/1.1 " + std::to_string(head.result_int()) + " ";
    text.reserve(1024);
    text += head.reason();
    text += "\r\n";
    auto headers = headers_of(head);
    drop_hop_by_hop(headers);
    const bool has_body = options.framing.kind != BodyKind::none;
    for (const auto& [name, value] : headers) {
        if (has_body && equals_ignoring_case(name, "content-length"))
            continue;
        if (equals_ignoring_case(name, "location"))
            append_header(text, name, public_location(value, addresses));
        else if (equals_ignoring_case(name, "set-cookie"))
            append_header(text, name, own_cookie(value, addresses.public_scheme == "https"));
        else
            append_header(text, name, value);
    }
    if (options.framing.kind == BodyKind::counted)
        append_header(text, "Content-Length", std::to_string(options.framing.bytes));
    else if (options.framing.kind == BodyKind::chunked && options.may_chunk)
        append_header(text, "Transfer-Encoding", "chunked");
    append_header(text, "Connection", options.keep_alive ? "keep-alive" : "close");
    return text += "\r\n";
}

AnswerBody::AnswerBody(AnswerParser& parser, BodyFraming framing, bool may_chunk)
    : parser_(parser), framing_(framing), may_chunk_(may_chunk) {}

bool AnswerBody::is_done() const {
    return framing_.kind == BodyKind::chunked ? parser_.is_done() : framing_.bytes == 0;
}

bool AnswerBody::convert(std::string_view bytes) {
    if (framing_.kind == BodyKind::chunked)
        return decode_chunks(bytes);
    output_ = bytes.substr(0, std::min<std::uint64_t>(framing_.bytes, bytes.size()));
    framing_.bytes -= output_.size();
    return true;
}

// The device's chunks are taken apart and made anew: what their framing may hide stays here.
bool AnswerBody::decode_chunks(std::string_view bytes) {
    undecoded_ += bytes;
    decoded_.clear();
    output_ = decoded_;
    if (is_part_of_chunked_end(undecoded_))
        return true;
    std::size_t taken = 0;
    std::array<char, 16384> piece;
    boost::system::error_code error;
    while (!parser_.is_done() && taken < undecoded_.size() && error != http::error::need_more) {
        auto& target = parser_.get().body();
        target.data = piece.data();
        target.size = piece.size();
        taken += parser_.put(
            boost::asio::buffer(undecoded_.data() + taken, undecoded_.size() - taken), error);
        decoded_.append(piece.data(), piece.size() - target.size);
        if (error && error != http::error::need_more && error != http::error::need_buffer)
            return false;
    }
    undecoded_.erase(0, taken);
    if (undecoded_.size() > max_answer_head_bytes)
        return false; // a chunk's head, or trailers, without an end
    if (may_chunk_) {
        if (!decoded_.empty()) {
            decoded_.insert(0, chunk_head(decoded_.size()));
            decoded_ += "\r\n";
        }
        if (parser_.is_done())
            decoded_ += "0\r\n\r\n";
    }
    output_ = decoded_;
    return true;
}

} // namespace relay
