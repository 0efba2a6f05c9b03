#include "front/pages.h"

#include "base/text.h"

#include <boost/beast/http/status.hpp>

namespace relay {

PageReason no_memory() {
    return {503, "The relay has no memory left for this request. Try again soon.", "memory"};
}

std::string_view reason_phrase(unsigned status) {
    const auto phrase =
        boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(status));
    return {phrase.data(), phrase.size()};
}

std::string make_page(const PageReason& reason, bool keep_alive, bool with_body) {
    const std::string title =
        std::to_string(reason.status) + " " + std::string(reason_phrase(reason.status));
    const std::string body =
        "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta name=\"viewport\" content=\"width=device-width\">\n<title>" +
        title +
        "</title>\n"
        "<style>body{font:16px/1.5 system-ui,sans-serif;max-width:36em;margin:12vh auto;"
        "padding:0 1em;color:#222}h1{font-size:1.3em}p{color:#555}</style>\n</head>\n<body>\n<h1>" +
        title + "</h1>\n<p>" + html_escaped(reason.text) + "</p>\n</body>\n</html>\n";
    std::string page = "HTTP/1.1 " + title +
                       "\r\nContent-Type: text/html; charset=utf-8\r\n"
                       "Cache-Control: no-store\r\nContent-Length: " +
                       std::to_string(body.size()) +
                       "\r\nConnection: " + (keep_alive ? "keep-alive" : "close") + "\r\n\r\n";
    if (with_body)
        page += body;
    return page;
}

} // namespace relay
