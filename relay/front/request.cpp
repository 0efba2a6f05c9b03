#include "front/request.h"

#include "base/text.h"
#include "front/headers.h"
#include "front/urls.h"

#include <boost/beast/http/rfc7230.hpp>

#include <algorithm>
#include <vector>

namespace relay {
namespace {

PageReason bad_request(std::string text) {
    return {400, std::move(text), "bad_request"};
}

std::string_view value_of(const RequestHead& head, http::field field) {
    return head[field];
}

// What the relay has settled with the user, or writes itself: a user could lie about where his
// request comes from. CGI programs get X_Forwarded_For under the same name as X-Forwarded-For.
bool is_written_anew(std::string_view name) {
    const auto is_same = [](char given, char own) {
        return (given == '_' ? '-' : lower_case(given)) == own;
    };
    for (const std::string_view each :
         {"host", "content-length", "expect", "x-forwarded-for", "x-forwarded-proto",
          "x-forwarded-host", "x-forwarded-port", "x-real-ip", "forwarded"})
        if (std::equal(name.begin(), name.end(), each.begin(), each.end(), is_same))
            return true;
    return false;
}

bool names_a_page(std::string_view name) {
    return equals_ignoring_case(name, "origin") || equals_ignoring_case(name, "referer");
}

// A device that compares where a form comes from with its Host knows its own address only.
std::string page_for_device(std::string_view page, const Route& route,
                            std::string_view device_host) {
    const auto url = url_parts(page);
    if (!url || !equals_ignoring_case(url->authority, route.host))
        return std::string(page);
    std::string text = "http://";
    text += device_host;
    return text += url->rest;
}

// The next line of a head, which it loses.
std::string_view take_line(std::string_view& head) {
    const auto line = head.substr(0, head.find("\r\n"));
    head.remove_prefix(std::min(head.size(), line.size() + 2));
    return line;
}

// The headers in the lines behind the first, in their order.
std::vector<Header> headers_of(std::string_view lines) {
    std::vector<Header> headers;
    for (auto line = take_line(lines); !line.empty(); line = take_line(lines)) {
        const auto colon = line.find(':');
        headers.push_back({line.substr(0, colon), trimmed(line.substr(colon + 1))});
    }
    return headers;
}

// Other offers may be ignored, as HTTP/2 is without TLS; a WebSocket's first request is of no use
// to the device as a plain one.
bool asks_for_websocket(const RequestHead& head) {
    for (const auto& field : head)
        if (field.name() == http::field::upgrade &&
            http::token_list(field.value()).exists("websocket"))
            return true;
    return false;
}

bool is_host(std::string_view text) {
    return !text.empty() && text.size() <= 255 &&
           text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                  "-_.:[]") == text.npos;
}

} // namespace

std::optional<PageReason> check_head_bytes(std::string_view head, std::size_t begin) {
    for (std::size_t i = begin; i < head.size(); ++i) {
        const char c = head[i];
        const char next = i + 1 < head.size() ? head[i + 1] : '\0';
        if (c == '\r' && i + 1 < head.size() && next != '\n')
            return bad_request("The request has a carriage return without a line feed.");
        if (c == '\n' && (i == 0 || head[i - 1] != '\r'))
            return bad_request("The request has a line feed without a carriage return.");
        if (c == '\n' && i > 1 && (next == ' ' || next == '\t'))
            return bad_request("The request has a folded header line.");
        if (c == '\0' ||
            (static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\r' && c != '\n'))
            return bad_request("The request has a control character.");
    }
    return std::nullopt;
}

HeadLook look_for_head(std::string_view input, std::size_t checked, std::size_t max_header_bytes) {
    const auto end = input.find(head_end, checked > 3 ? checked - 3 : 0);
    const auto head = input.substr(0, end == input.npos ? end : end + head_end.size());
    HeadLook look;
    look.page = check_head_bytes(head, checked > 1 ? checked - 1 : 0).value_or(PageReason{});
    if (look.page.status == 0 && head.size() > max_header_bytes)
        look.page = parse_error(http::error::header_limit);
    if (look.page.status == 0 && end != input.npos)
        look.head_bytes = head.size();
    return look;
}

PageReason read_head(RequestParser& parser, std::string_view head,
                     boost::system::error_code& error) {
    parser.put(boost::asio::buffer(head.data(), head.size()), error);
    if (error)
        return parse_error(error);
    return check_head(parser.get()).value_or(PageReason{});
}

std::optional<PageReason> take_body(RequestParser& parser, std::string& input,
                                    std::size_t max_header_bytes, std::size_t& taken) {
    taken = 0;
    if (parser.chunked() && is_part_of_chunked_end(input))
        return std::nullopt;
    boost::system::error_code error;
    taken = parser.put(boost::asio::buffer(input), error);
    input.erase(0, taken);
    if (parser.is_done())
        return std::nullopt;
    if (error && error != http::error::need_more)
        return parse_error(error);
    if (input.size() > max_header_bytes)
        return parse_error(http::error::header_limit);
    return std::nullopt;
}

PageReason parse_error(const boost::system::error_code& error) {
    if (error == http::error::body_limit)
        return {413, "The request's body is larger than this relay carries.", "body_limit"};
    if (error == http::error::header_limit)
        return {431, "The request's header is larger than this relay takes.", "header_limit"};
    if (error == http::error::bad_version)
        return {505, "This relay speaks HTTP/1.1.", "version"};
    return bad_request("This is no valid HTTP/1.1 request: " + error.message() + ".");
}

std::optional<PageReason> check_head(const RequestHead& head) {
    if (head.version() != 10 && head.version() != 11)
        return PageReason{505, "This relay speaks HTTP/1.1.", "version"};
    if (head.method() == http::verb::connect || head.method() == http::verb::trace)
        return PageReason{501, "This relay carries neither CONNECT nor TRACE.", "method"};
    if (head.count(http::field::host) != 1)
        return bad_request("The request must name exactly one host.");
    if (head.count(http::field::content_length) > 1)
        return bad_request("The request has more than one Content-Length.");
    if (value_of(head, http::field::content_length).find_first_not_of("0123456789") !=
        std::string_view::npos)
        return bad_request("The request's Content-Length is no number.");
    const auto codings = head.count(http::field::transfer_encoding);
    if (codings > 0 && (head.version() == 10 || head.count(http::field::content_length) > 0))
        return bad_request("The request's length can be read in two ways.");
    if (codings > 1 ||
        (codings == 1 &&
         !equals_ignoring_case(value_of(head, http::field::transfer_encoding), "chunked")))
        return PageReason{501, "This relay knows no transfer coding but \"chunked\".",
                          "transfer_coding"};
    if (asks_for_websocket(head))
        return PageReason{501,
                          "This page wants a WebSocket, which does not pass through the relay: it "
                          "carries one request and its answer at a time.",
                          "upgrade"};
    return std::nullopt;
}

std::optional<PageReason> check_origin(const RequestHead& head, const Route& route) {
    const auto method = head.method();
    if (method == http::verb::get || method == http::verb::head || method == http::verb::options)
        return std::nullopt;
    const std::string_view origin = head[http::field::origin];
    const std::string_view site = head["Sec-Fetch-Site"];
    const auto url = url_parts(origin);
    if (origin.empty() || !equals_ignoring_case(site, "same-site") ||
        (url && equals_ignoring_case(url->authority, route.host)))
        return std::nullopt;
    return PageReason{403, "A page of another device tried to change something on this one.",
                      "other_device"};
}

std::optional<Route> route_of(const RequestHead& head, std::string_view base_domain) {
    Route route;
    route.host = value_of(head, http::field::host);
    route.target = head.target();
    if (!route.target.starts_with('/') && route.target != "*") {
        // The absolute form, which proxies use, names the host itself.
        const auto scheme = route.target.find("://");
        if (scheme == std::string::npos)
            return std::nullopt;
        const auto path = route.target.find_first_of("/?", scheme + 3);
        route.host = route.target.substr(scheme + 3, path - scheme - 3);
        route.target = path == std::string::npos ? "/" : route.target.substr(path);
        if (route.target.front() == '?')
            route.target.insert(0, 1, '/');
    }
    if (!is_host(route.host))
        return std::nullopt;
    std::string name = lower_case(host_of(route.host));
    if (name.ends_with('.'))
        name.pop_back();
    if (name.size() > base_domain.size() + 1 && name.ends_with(base_domain) &&
        name[name.size() - base_domain.size() - 1] == '.')
        route.device_id = name.substr(0, name.size() - base_domain.size() - 1);
    return route;
}

std::string device_head(std::string_view head, const Route& route, const Forwarding& forwarding,
                        std::size_t body_bytes, bool has_body) {
    const auto first = take_line(head);
    auto headers = headers_of(head);
    drop_hop_by_hop(headers);
    std::string text;
    text.reserve(1024);
    text += first.substr(0, first.find(' '));
    text += ' ';
    text += route.target;
    text += first.substr(first.rfind(' '));
    text += "\r\n";
    append_header(text, "Host", forwarding.device_host);
    for (const auto& [name, value] : headers) {
        if (is_written_anew(name))
            continue;
        if (names_a_page(name))
            append_header(text, name, page_for_device(value, route, forwarding.device_host));
        else
            append_header(text, name, value);
    }
    if (has_body)
        append_header(text, "Content-Length", std::to_string(body_bytes));
    append_header(text, "X-Forwarded-For", forwarding.user);
    append_header(text, "X-Forwarded-Proto", forwarding.scheme);
    append_header(text, "X-Forwarded-Host", route.host);
    append_header(text, "Connection", "close");
    return text += "\r\n";
}

} // namespace relay
