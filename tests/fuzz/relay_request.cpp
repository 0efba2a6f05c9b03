// A user's request, from the bytes of his connection, which a trusted proxy has made, to what the
// device's web server gets.
//
// Input: most bytes of one read (8 bits), then the connection's bytes.

#include "base/text.h"
#include "front/forwarded.h"
#include "front/headers.h"
#include "front/request.h"
#include "fuzz.h"

#include <boost/asio/buffer.hpp>

namespace {

using namespace relay;

constexpr std::size_t max_header_bytes = 1024; // small limits, which an input can reach
constexpr std::size_t max_body_bytes = 2048;
constexpr std::string_view proxy = "10.0.0.1";
constexpr std::string_view device_host = "127.0.0.1:81";

struct Relayed {
    enum class End { incomplete, refused, passed_on };

    End end = End::incomplete;
    std::string user;
    std::string_view scheme;
    std::string target;
    std::string body;
    std::string to_device;
    std::string rest; // of the connection's bytes

    bool operator==(const Relayed&) const = default;
};

// A connection's input, in pieces.
class Connection {
public:
    Connection(std::string_view bytes, std::size_t slice) : unread_(bytes), slice_(slice) {}

    bool read_more() {
        const auto piece = unread_.substr(0, slice_);
        unread_.remove_prefix(piece.size());
        input += piece;
        return !piece.empty();
    }
    std::string rest() const { return input + std::string(unread_); }

    std::string input;

private:
    std::string_view unread_;
    std::size_t slice_;
};

// False at the connection's end, or after a page of the relay's own.
bool receive_head(Connection& connection, RequestParser& parser, std::string& head,
                  Relayed& result) {
    std::string& input = connection.input;
    for (std::size_t checked = 0;;) {
        if (checked == 0)
            input.erase(0, input.find_first_not_of("\r\n"));
        const auto look = look_for_head(input, checked, max_header_bytes);
        PageReason page = look.page;
        if (page.status == 0 && look.head_bytes > 0) {
            boost::system::error_code error;
            head = input.substr(0, look.head_bytes);
            page = read_head(parser, head, error);
            input.erase(0, look.head_bytes);
            if (page.status == 0)
                return true;
        }
        if (page.status != 0) {
            result.end = Relayed::End::refused;
            return false;
        }
        checked = input.size();
        if (!connection.read_more())
            return false;
    }
}

bool receive_body(Connection& connection, RequestParser& parser, Relayed& result) {
    parser.eager(true);
    while (!parser.is_done()) {
        std::size_t taken = 0;
        if (take_body(parser, connection.input, max_header_bytes, taken)) {
            result.end = Relayed::End::refused;
            return false;
        }
        if (!parser.is_done() && !connection.read_more())
            return false;
    }
    return true;
}

void identify(const RequestHead& head, Relayed& result) {
    Networks trusted;
    REQUIRE(trusted.add("10.0.0.0/8"));
    const auto told = read_forwarded(head, trusted);
    REQUIRE(told.scheme.empty() || told.scheme == "http" || told.scheme == "https");
    result.user = told.user ? to_text(*told.user) : std::string(proxy);
    result.scheme = told.scheme.empty() ? "http" : told.scheme;
}

Relayed relay_request(std::string_view bytes, std::size_t slice) {
    Connection connection(bytes, slice);
    RequestParser parser;
    parser.header_limit(max_header_bytes);
    parser.body_limit(max_body_bytes);
    Relayed result;
    std::string head;
    if (!receive_head(connection, parser, head, result))
        return result;
    const auto route = route_of(parser.get(), "relay.example");
    if (!route)
        return {Relayed::End::refused, {}, {}, {}, {}, {}, {}};
    identify(parser.get(), result);
    if (!receive_body(connection, parser, result))
        return result;
    result.end = Relayed::End::passed_on;
    result.target = route->target;
    result.body = parser.get().body();
    const bool has_body = parser.chunked() || parser.content_length().has_value();
    result.to_device = device_head(head, *route, {device_host, result.user, result.scheme},
                                   result.body.size(), has_body) +
                       result.body;
    result.rest = connection.rest();
    return result;
}

// The headers that decide where a request ends and who sent it stand in it once, as the relay
// wrote them; read line by line, with no parser's tolerance.
void check_lines(std::string_view head, const Relayed& relayed) {
    REQUIRE(!check_head_bytes(head, 0));
    std::size_t hosts = 0, lengths = 0, users = 0;
    head.remove_prefix(head.find("\r\n") + 2);
    while (head != "\r\n") {
        const auto line = head.substr(0, head.find("\r\n"));
        head.remove_prefix(line.size() + 2);
        const auto colon = line.find(": ");
        REQUIRE(colon != line.npos && colon > 0);
        std::string name(line.substr(0, colon));
        std::transform(name.begin(), name.end(), name.begin(), ::tolower);
        REQUIRE(name.find_first_of(" \t:") == name.npos);
        const auto value = line.substr(colon + 2);
        REQUIRE(name != "transfer-encoding" && name != "upgrade" && name != "te");
        hosts += name == "host";
        users += name == "x-forwarded-for";
        lengths += name == "content-length";
        REQUIRE(name != "host" || value == device_host);
        REQUIRE(name != "x-forwarded-for" || value == relayed.user);
        REQUIRE(name != "content-length" || value == std::to_string(relayed.body.size()));
        REQUIRE(name != "connection" || value == "close");
    }
    REQUIRE(hosts == 1 && users == 1 && lengths == (relayed.body.empty() ? lengths : 1));
    REQUIRE(lengths <= 1);
}

// What is passed on is one request, the same as it came.
void check_relayed(const Relayed& relayed) {
    const auto head_bytes = relayed.to_device.find(head_end) + head_end.size();
    check_lines(std::string_view(relayed.to_device).substr(0, head_bytes), relayed);
    RequestParser again;
    again.eager(true);
    again.body_limit(max_body_bytes);
    boost::system::error_code error;
    const auto taken = again.put(boost::asio::buffer(relayed.to_device), error);
    REQUIRE(!error && again.is_done() && taken == relayed.to_device.size());
    REQUIRE(again.get().target() == relayed.target);
    REQUIRE(again.get().body() == relayed.body);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const std::size_t slice = input.byte() + std::size_t{1};
    const auto bytes = input.rest();

    const Relayed whole = relay_request(bytes, bytes.size() + 1);
    REQUIRE(relay_request(bytes, slice) == whole);
    if (whole.end == Relayed::End::passed_on)
        check_relayed(whole);
    return 0;
}
