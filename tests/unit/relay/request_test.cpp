#include "front/request.h"

#include <gmock/gmock.h>

#include <random>
#include <set>

namespace relay {
namespace {

using namespace std::string_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// --- the bytes of a head -------------------------------------------------------------------

// As a connection calls it when a head comes in two pieces; `end` is where the first one ends.
bool refuses_split(std::string_view head, std::size_t end) {
    if (check_head_bytes(head.substr(0, end), 0))
        return true;
    return check_head_bytes(head, end > 1 ? end - 1 : 0).has_value();
}

bool refuses_byte_by_byte(std::string_view head) {
    for (std::size_t size = 1; size <= head.size(); ++size)
        if (check_head_bytes(head.substr(0, size), size > 2 ? size - 2 : 0))
            return true;
    return false;
}

void expect_verdict(const std::string& head, bool refused) {
    EXPECT_EQ(check_head_bytes(head, 0).has_value(), refused) << testing::PrintToString(head);
    EXPECT_EQ(refuses_byte_by_byte(head), refused) << testing::PrintToString(head);
    for (std::size_t end = 0; end <= head.size(); ++end)
        EXPECT_EQ(refuses_split(head, end), refused)
            << testing::PrintToString(head) << " split at " << end;
}

TEST(HeadBytes, OfAGoodHeadPassAtEverySplit) {
    expect_verdict("GET / HTTP/1.1\r\nHost: a\r\nX:\ty\r\nLong: a b  c\r\nUtf: \xC3\xA4\r\n\r\n",
                   false);
    expect_verdict("G", false);
    expect_verdict("", false);
}

TEST(HeadBytes, WithABareCarriageReturnAreRefusedAtEverySplit) {
    expect_verdict("GET / HTTP/1.1\r\nHost: a\rX: b\r\n\r\n", true);
    expect_verdict("GET / HTTP/1.1\r\r\nHost: a\r\n\r\n", true);
    expect_verdict("\rGET / HTTP/1.1\r\n\r\n", true);
}

TEST(HeadBytes, WithABareLineFeedAreRefusedAtEverySplit) {
    expect_verdict("GET / HTTP/1.1\nHost: a\r\n\r\n", true);
    expect_verdict("GET / HTTP/1.1\r\nHost: a\n\r\n", true);
    expect_verdict("GET / HTTP/1.1\r\nHost: a\r\n\n", true);
    expect_verdict("\nGET / HTTP/1.1\r\n\r\n", true);
}

TEST(HeadBytes, WithAFoldedLineAreRefusedAtEverySplit) {
    expect_verdict("GET / HTTP/1.1\r\nHost: a\r\n b\r\n\r\n", true);
    expect_verdict("GET / HTTP/1.1\r\n\tHost: a\r\n\r\n", true);
}

TEST(HeadBytes, WithAControlCharacterAreRefusedAtEverySplit) {
    for (const char c : {'\0', '\x01', '\x08', '\x0b', '\x0c', '\x1b', '\x1f'})
        expect_verdict("GET / HTTP/1.1\r\nHost: a"s + c + "b\r\n\r\n", true);
    expect_verdict("GET /\0 HTTP/1.1\r\n\r\n"s, true);
}

TEST(HeadBytes, CarriageReturnAsTheLastByteIsLeftForLater) {
    EXPECT_FALSE(check_head_bytes("GET / HTTP/1.1\r", 0));
}

TEST(HeadBytes, RefusalIsABadRequestThatSaysWhy) {
    const auto reason = check_head_bytes("GET / HTTP/1.1\n", 0);
    ASSERT_TRUE(reason);
    EXPECT_EQ(reason->status, 400u);
    EXPECT_EQ(reason->note, "bad_request");
    EXPECT_EQ(reason->text, "The request has a line feed without a carriage return.");
}

// --- the head ------------------------------------------------------------------------------

// Keeps the parser, which owns the head.
class Parsed {
public:
    explicit Parsed(const std::string& text) {
        parser_.put(boost::asio::buffer(text), error_);
        EXPECT_TRUE(error_ || parser_.is_header_done()) << text;
    }
    // "GET TARGET HTTP/1.1", a host and more lines.
    static Parsed get(const std::string& target, const std::string& host,
                      const std::string& more = "") {
        return Parsed("GET " + target + " HTTP/1.1\r\nHost: " + host + "\r\n" + more + "\r\n");
    }
    Parsed(Parsed&&) = default;

    const RequestHead& head() const { return parser_.get(); }
    boost::system::error_code error() const { return error_; }

private:
    RequestParser parser_;
    boost::system::error_code error_;
};

// The status with which a head is refused, by the parser or by us; 0 when it may go on.
unsigned refused_with(const std::string& text) {
    const Parsed parsed(text);
    if (parsed.error())
        return parse_error(parsed.error()).status;
    return check_head(parsed.head()).value_or(PageReason{}).status;
}

std::string request(const std::string& lines, const std::string& first = "POST / HTTP/1.1") {
    return first + "\r\n" + lines + "\r\n";
}

TEST(Head, OfOrdinaryRequestsGoesOn) {
    EXPECT_EQ(refused_with(request("Host: a\r\n", "GET / HTTP/1.1")), 0u);
    EXPECT_EQ(refused_with(request("Host: a\r\n", "GET / HTTP/1.0")), 0u);
    EXPECT_EQ(refused_with(request("Host: a\r\n", "PROPFIND /x HTTP/1.1")), 0u);
    EXPECT_EQ(refused_with(request("Host: a\r\n", "OPTIONS * HTTP/1.1")), 0u);
    EXPECT_EQ(refused_with(request("Host: a\r\nContent-Length: 5\r\n")), 0u);
    EXPECT_EQ(refused_with(request("Host: a\r\nTransfer-Encoding: chunked\r\n")), 0u);
    EXPECT_EQ(refused_with(request("Host: a\r\nTransfer-Encoding: Chunked\r\n")), 0u);
    EXPECT_EQ(refused_with(request("Host:\r\n")), 0u) << "an empty host is route_of's matter";
}

TEST(Head, NamesExactlyOneHost) {
    EXPECT_EQ(refused_with(request("")), 400u);
    EXPECT_EQ(refused_with(request("Host: a\r\nHost: a\r\n")), 400u);
    EXPECT_EQ(refused_with(request("Host: a\r\nhost: b\r\n")), 400u);
}

TEST(Head, WhoseLengthIsAmbiguousIsRefused) {
    for (const char* lines :
         {"Content-Length: 5\r\nContent-Length: 6\r\n",
          "Content-Length: 5\r\nContent-Length: 5\r\n", "Content-Length: 5, 5\r\n",
          "Content-Length: +5\r\n", "Content-Length: -5\r\n", "Content-Length: 0x5\r\n",
          "Content-Length: 5 5\r\n", "Content-Length:\r\n",
          "Content-Length: 99999999999999999999\r\n", "Content-Length : 5\r\n",
          "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
          "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n",
          "Transfer-Encoding: chunked\r\nContent-Length: 0\r\n",
          "Transfer-Encoding: identity\r\nContent-Length: 5\r\n"})
        EXPECT_EQ(refused_with(request("Host: a\r\n"s + lines)), 400u) << lines;
    EXPECT_EQ(refused_with(request("Host: a\r\nTransfer-Encoding: chunked\r\n", "POST / HTTP/1.0")),
              400u);
}

TEST(Head, WithAnotherTransferCodingIsRefused) {
    for (const char* value : {"gzip", "gzip, chunked", "chunked, chunked", "chunked, gzip",
                              "identity", "xchunked", "chunked;a=b", "\"chunked\"", ""})
        EXPECT_NE(refused_with(request("Host: a\r\nTransfer-Encoding: "s + value + "\r\n")), 0u)
            << value;
    EXPECT_NE(refused_with(request(
                  "Host: a\r\nTransfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n")),
              0u);
    EXPECT_NE(refused_with(
                  request("Host: a\r\nTransfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n")),
              0u);
}

TEST(Head, ThatTunnelsIsRefused) {
    EXPECT_EQ(refused_with(request("Host: a\r\n", "CONNECT a:80 HTTP/1.1")), 501u);
    EXPECT_EQ(refused_with(request("Host: a\r\n", "TRACE / HTTP/1.1")), 501u);
    EXPECT_EQ(refused_with(request("Host: a\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n",
                                   "GET / HTTP/1.1")),
              501u);
    EXPECT_EQ(refused_with(request("Host: a\r\nUpgrade: h2c, WebSocket\r\n", "GET / HTTP/1.1")),
              501u);
    EXPECT_EQ(refused_with(request("Host: a\r\nUpgrade: h2c\r\n", "GET / HTTP/1.1")), 0u);
}

TEST(Head, ThatIsNoHttpIsRefused) {
    for (const char* first :
         {"GET /", "GET / HTTP/2.0", "GET / HTTP/1.2", "GET / HTTP/1.10", "GET  / HTTP/1.1",
          "GET / a HTTP/1.1", "GET / http/1.1", "/ HTTP/1.1", "G\x7F / HTTP/1.1"})
        EXPECT_NE(refused_with(request("Host: a\r\n", first)), 0u) << first;
    for (const char* line :
         {"Host\r\n", "Host : a\r\n", ": a\r\n", "Ho st: a\r\n", "Host: a\x7F\r\n"})
        EXPECT_NE(refused_with(request(line)), 0u) << line;
}

TEST(Head, ErrorsOfTheParserHaveTheirStatus) {
    EXPECT_EQ(parse_error(http::error::body_limit).status, 413u);
    EXPECT_EQ(parse_error(http::error::header_limit).status, 431u);
    EXPECT_EQ(parse_error(http::error::bad_version).status, 505u);
    EXPECT_EQ(parse_error(http::error::bad_chunk).note, "bad_request");
}

// --- routing -------------------------------------------------------------------------------

std::optional<Route> route(const std::string& target, const std::string& host,
                           std::string_view base_domain = "localhost") {
    return route_of(Parsed::get(target, host).head(), base_domain);
}

TEST(Route, DeviceIsTheHostsFirstLabel) {
    const auto found = route("/a?b", "Router-1.localhost:8080");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->device_id, "router-1");
    EXPECT_EQ(found->host, "Router-1.localhost:8080") << "for links back, as the user wrote it";
    EXPECT_EQ(found->target, "/a?b");
}

TEST(Route, HostMayBeWrittenInManyWays) {
    for (const char* host : {"a.relay.example", "A.Relay.EXAMPLE", "a.relay.example:443",
                             "a.relay.example.", "a.relay.example.:443", "a.relay.example:"})
        EXPECT_EQ(route("/", host, "relay.example")->device_id, "a") << host;
}

TEST(Route, OtherHostsNameNoDevice) {
    for (const char* host : {"localhost", "localhost:80", ".localhost", "127.0.0.1:80", "[::1]:80",
                             "a.localhost.example", "alocalhost", "a.example", "localhost.a"})
        EXPECT_EQ(route("/", host)->device_id, "") << host;
}

TEST(Route, HostThatIsNoneIsRefused) {
    for (const char* host :
         {"", "a b.localhost", "a.localhost/x", "user@a.localhost", "a.localhost#", "<a>.localhost",
          "a,b.localhost", "a\"b.localhost", "\xC3\xA4.localhost"})
        EXPECT_FALSE(route("/", host)) << host;
    EXPECT_FALSE(route("/", std::string(256, 'a')));
}

TEST(Route, AbsoluteFormNamesItsOwnHost) {
    const auto found = route("http://b.localhost:80/x?y", "a.localhost");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->device_id, "b");
    EXPECT_EQ(found->host, "b.localhost:80");
    EXPECT_EQ(found->target, "/x?y");
}

TEST(Route, AbsoluteFormWithoutAPathHasOne) {
    EXPECT_EQ(route("http://b.localhost", "a")->target, "/");
    EXPECT_EQ(route("http://b.localhost", "a")->device_id, "b");
    EXPECT_EQ(route("http://b.localhost?y=/", "a")->target, "/?y=/");
}

TEST(Route, AbsoluteFormWithAUserOrWithoutAHostIsRefused) {
    EXPECT_FALSE(route("http://a@b.localhost/", "a"));
    EXPECT_FALSE(route("http:///x", "a"));
    EXPECT_FALSE(route("http://", "a"));
    EXPECT_FALSE(route("x/y", "a"));
    EXPECT_FALSE(route("a.localhost:443", "a"));
}

TEST(Route, AsteriskStays) {
    EXPECT_EQ(route("*", "a.localhost")->target, "*");
}

// --- what the device gets ------------------------------------------------------------------

constexpr Forwarding forwarding{"127.0.0.1", "192.0.2.7", "http"};

std::string forwarded(const std::string& text, std::size_t body_bytes = 0, bool has_body = false) {
    const Parsed parsed(text);
    EXPECT_FALSE(parsed.error()) << parsed.error().message();
    const auto found = route_of(parsed.head(), "localhost");
    EXPECT_TRUE(found);
    return device_head(text, *found, forwarding, body_bytes, has_body);
}

TEST(DeviceHead, IsTheUsersWithTheRelaysWordsAboutIt) {
    EXPECT_EQ(
        forwarded("GET /x?y HTTP/1.1\r\nHost: a.localhost:80\r\nAccept: */*\r\nCookie: a=b\r\n"
                  "cookie: c=d\r\nUser-Agent: test\r\n\r\n"),
        "GET /x?y HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: */*\r\nCookie: a=b\r\ncookie: c=d\r\n"
        "User-Agent: test\r\nX-Forwarded-For: 192.0.2.7\r\nX-Forwarded-Proto: http\r\n"
        "X-Forwarded-Host: a.localhost:80\r\nConnection: close\r\n\r\n");
}

TEST(DeviceHead, KeepsTheOrderOfHeadersAlsoOfOneName) {
    EXPECT_THAT(forwarded("GET / HTTP/1.1\r\nX-A: 1\r\nHost: a.localhost\r\nX-B: 2\r\nx-a:3 \r\n"
                          "X-Empty:\r\nX-A: \t4:5\t\r\n\r\n"),
                HasSubstr("X-A: 1\r\nX-B: 2\r\nx-a: 3\r\nX-Empty: \r\nX-A: 4:5\r\n"));
}

TEST(DeviceHead, KeepsTheVersion) {
    EXPECT_THAT(forwarded("GET / HTTP/1.0\r\nHost: a.localhost\r\n\r\n"),
                StartsWith("GET / HTTP/1.0\r\n"));
}

TEST(DeviceHead, KeepsAnUnknownMethod) {
    EXPECT_THAT(forwarded("MKCALENDAR /c HTTP/1.1\r\nHost: a.localhost\r\n\r\n"),
                StartsWith("MKCALENDAR /c HTTP/1.1\r\n"));
}

TEST(DeviceHead, HasTheBodysLengthAndNoOther) {
    const std::string head = forwarded("POST / HTTP/1.1\r\nHost: a.localhost\r\n"
                                       "Transfer-Encoding: chunked\r\nTrailer: X\r\n\r\n",
                                       12, true);
    EXPECT_THAT(head, HasSubstr("\r\nContent-Length: 12\r\n"));
    EXPECT_THAT(head, Not(HasSubstr("Transfer-Encoding")));
    EXPECT_THAT(head, Not(HasSubstr("Trailer")));
    EXPECT_THAT(
        forwarded("POST / HTTP/1.1\r\nHost: a.localhost\r\nContent-Length: 0\r\n\r\n", 0, true),
        HasSubstr("\r\nContent-Length: 0\r\n"));
    EXPECT_THAT(forwarded("GET / HTTP/1.1\r\nHost: a.localhost\r\n\r\n"),
                Not(HasSubstr("Content-Length")));
}

TEST(DeviceHead, LeavesOutWhatIsForTheRelay) {
    const std::string head = forwarded(
        "GET / HTTP/1.1\r\nHost: a.localhost\r\nConnection: keep-alive, X-Private\r\n"
        "Keep-Alive: 5\r\nProxy-Connection: x\r\nProxy-Authorization: x\r\nTE: trailers\r\n"
        "Expect: 100-continue\r\nx-private: secret\r\nX-Public: seen\r\n\r\n");
    for (const char* gone : {"Keep-Alive", "keep-alive", "Proxy-", "TE:", "Expect", "x-private"})
        EXPECT_THAT(head, Not(HasSubstr(gone)));
    EXPECT_THAT(head, HasSubstr("X-Public: seen\r\n"));
    EXPECT_THAT(head, EndsWith("Connection: close\r\n\r\n"));
}

TEST(DeviceHead, LeavesOutWhatAnyOfSeveralConnectionHeadersNames) {
    const std::string head =
        forwarded("GET / HTTP/1.1\r\nHost: a.localhost\r\nConnection: X-A\r\nX-A: 1\r\nX-B: 2\r\n"
                  "connection: close, X-B\r\nX-C: 3\r\n\r\n");
    EXPECT_THAT(head, Not(HasSubstr("X-A")));
    EXPECT_THAT(head, Not(HasSubstr("X-B")));
    EXPECT_THAT(head, HasSubstr("X-C: 3\r\n"));
}

TEST(DeviceHead, BelievesNobodyAboutWhereARequestComesFrom) {
    const std::string head =
        forwarded("GET / HTTP/1.1\r\nHost: a.localhost\r\nX-Forwarded-For: 10.0.0.1\r\n"
                  "x-forwarded-proto: https\r\nX-Forwarded-Host: evil\r\nX-Forwarded-Port: 1\r\n"
                  "X-Real-IP: 10.0.0.1\r\nForwarded: for=10.0.0.1\r\n\r\n");
    EXPECT_THAT(head, Not(HasSubstr("10.0.0.1")));
    EXPECT_THAT(head, Not(HasSubstr("evil")));
    EXPECT_THAT(head, Not(HasSubstr("X-Forwarded-Port")));
    EXPECT_THAT(head, HasSubstr("X-Forwarded-For: 192.0.2.7\r\n"));
}

TEST(DeviceHead, BelievesNoNameThatProgramsReadAsOneOfTheRelays) {
    const std::string head =
        forwarded("GET / HTTP/1.1\r\nHost: a.localhost\r\nX_Forwarded_For: 10.0.0.1\r\n"
                  "X-Forwarded_Proto: https\r\nx_real_ip: 10.0.0.1\r\nX_Other: seen\r\n\r\n");
    EXPECT_THAT(head, Not(HasSubstr("10.0.0.1")));
    EXPECT_THAT(head, Not(HasSubstr("https")));
    EXPECT_THAT(head, HasSubstr("X_Other: seen\r\n"));
}

TEST(DeviceHead, NamesTheDevicesPagesByItsOwnAddress) {
    EXPECT_THAT(forwarded("POST / HTTP/1.1\r\nHost: a.localhost:80\r\n"
                          "Origin: https://A.localhost:80\r\n"
                          "Referer: http://a.localhost:80/form?x#y\r\n\r\n"),
                HasSubstr("\r\nOrigin: http://127.0.0.1\r\n"
                          "Referer: http://127.0.0.1/form?x#y\r\n"));
}

TEST(DeviceHead, NamesOtherPagesAsTheUserDid) {
    for (const char* line :
         {"Origin: http://b.localhost:80", "Origin: http://a.localhost", "Origin: null",
          "Referer: http://x@a.localhost:80/", "Referer: about:blank", "X: http://a.localhost:80/"})
        EXPECT_THAT(forwarded("GET / HTTP/1.1\r\nHost: a.localhost:80\r\n"s + line + "\r\n\r\n"),
                    HasSubstr(line + "\r\n"s));
}

// --- pages of other devices -----------------------------------------------------------------

unsigned verdict_on(const std::string& method, const std::string& lines) {
    const Parsed parsed(method + " / HTTP/1.1\r\nHost: a.localhost\r\n" + lines + "\r\n");
    return check_origin(parsed.head(), *route_of(parsed.head(), "localhost"))
        .value_or(PageReason{})
        .status;
}

TEST(Origin, OfAnotherDeviceMayChangeNothing) {
    const std::string other = "Sec-Fetch-Site: same-site\r\nOrigin: http://b.localhost\r\n";
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "MKCALENDAR"})
        EXPECT_EQ(verdict_on(method, other), 403u) << method;
    for (const char* method : {"GET", "HEAD", "OPTIONS"})
        EXPECT_EQ(verdict_on(method, other), 0u) << method;
    EXPECT_EQ(verdict_on("POST", "Sec-Fetch-Site: same-site\r\nOrigin: null\r\n"), 403u);
}

TEST(Origin, OfTheDeviceItselfMayDoEverything) {
    EXPECT_EQ(verdict_on("POST", "Sec-Fetch-Site: same-site\r\nOrigin: https://A.localhost\r\n"),
              0u);
    EXPECT_EQ(verdict_on("POST", "Sec-Fetch-Site: same-origin\r\nOrigin: http://b.localhost\r\n"),
              0u);
    EXPECT_EQ(verdict_on("POST", "Origin: http://b.localhost\r\n"), 0u); // an older browser
    EXPECT_EQ(verdict_on("POST", ""), 0u);
}

TEST(DeviceHead, OfTheAbsoluteFormIsInOriginForm) {
    EXPECT_THAT(forwarded("GET http://b.localhost/x HTTP/1.1\r\nHost: a.localhost\r\n\r\n"),
                AllOf(StartsWith("GET /x HTTP/1.1\r\nHost: 127.0.0.1\r\n"),
                      HasSubstr("X-Forwarded-Host: b.localhost\r\n")));
}

// The headers as the parser reads them, without those that the relay writes.
std::multiset<std::pair<std::string, std::string>> users_headers(const std::string& head) {
    const Parsed parsed(head);
    EXPECT_FALSE(parsed.error()) << testing::PrintToString(head);
    std::multiset<std::pair<std::string, std::string>> headers;
    for (const auto& field : parsed.head()) {
        const std::string name(field.name_string());
        if (name != "Host" && name != "Connection" && !name.starts_with("X-Forwarded-"))
            headers.emplace(name, field.value());
    }
    return headers;
}

std::string any_line(std::mt19937& random) {
    static const std::vector<std::string> pieces = {
        "X-A", "x-a", "Cookie", "b",    ":",    ":",  ": ",      " ",  "\t", ",",
        ";",   "\"",  "=",      "\x7f", "\x80", "()", "http://", "\\", "@",  "{"};
    std::string line = random() % 4 == 0 ? "" : "X-" + std::to_string(random() % 3) + ":";
    for (auto count = random() % 6; count > 0; --count)
        line += pieces[random() % pieces.size()];
    return line + "\r\n";
}

TEST(DeviceHead, SaysWhatTheParserReadWhateverTheLinesLookLike) {
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same heads each time
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string text = "GET / HTTP/1.1\r\nHost: a.localhost\r\n";
        for (auto count = random() % 4; count > 0; --count)
            text += any_line(random);
        text += "\r\n";
        text.resize(text.find("\r\n\r\n") + 4);
        if (check_head_bytes(text, 0) || refused_with(text) != 0)
            continue;
        ++accepted;
        EXPECT_EQ(users_headers(forwarded(text)), users_headers(text))
            << testing::PrintToString(text);
    }
    EXPECT_GT(accepted, 5000);
}

} // namespace
} // namespace relay
