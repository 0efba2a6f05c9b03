#include "front/answer.h"

#include <boost/beast/http/string_body.hpp>
#include <gmock/gmock.h>

#include <memory>

namespace relay {
namespace {

using namespace std::string_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr Addresses addresses{"127.0.0.1", "https", "a.relay.example:8443"};

// A head as a connection reads it, behind which a body may follow.
std::unique_ptr<AnswerParser> parsed(const std::string& head, bool to_head = false) {
    auto parser = std::make_unique<AnswerParser>();
    boost::system::error_code error;
    parser->body_limit(boost::none);
    parser->skip(to_head);
    parser->put(boost::asio::buffer(head), error);
    EXPECT_FALSE(error) << error.message() << " of " << head;
    EXPECT_TRUE(parser->is_header_done()) << head;
    return parser;
}

std::string head_of(const std::string& lines, const std::string& first = "HTTP/1.1 200 OK") {
    return first + "\r\n" + lines + "\r\n";
}

// --- framing -------------------------------------------------------------------------------

std::string framing(const std::string& head, bool to_head, std::uint64_t bytes_behind) {
    const auto found = framing_of(*parsed(head, to_head), to_head, bytes_behind);
    if (!found)
        return "too short";
    switch (found->kind) {
    case BodyKind::none:
        return "none";
    case BodyKind::chunked:
        return "chunked";
    default:
        return std::to_string(found->bytes);
    }
}

TEST(Framing, IsTheContentLength) {
    EXPECT_EQ(framing(head_of("Content-Length: 5\r\n"), false, 5), "5");
    EXPECT_EQ(framing(head_of("Content-Length: 0\r\n"), false, 0), "0");
}

TEST(Framing, BytesBehindTheContentLengthAreNoPartOfTheAnswer) {
    EXPECT_EQ(framing(head_of("Content-Length: 5\r\n"), false, 9), "5");
}

TEST(Framing, OfAnAnswerShorterThanItSaysIsNone) {
    EXPECT_EQ(framing(head_of("Content-Length: 5\r\n"), false, 4), "too short");
}

TEST(Framing, IsThePacketsLengthWhereTheAnswerHasNone) {
    EXPECT_EQ(framing(head_of(""), false, 7), "7");
    EXPECT_EQ(framing(head_of("", "HTTP/1.0 200 OK"), false, 0), "0");
}

TEST(Framing, IsTheAnswersOwnChunks) {
    EXPECT_EQ(framing(head_of("Transfer-Encoding: chunked\r\n"), false, 100), "chunked");
}

TEST(Framing, OfAnswersWithoutABodyIsNone) {
    EXPECT_EQ(framing(head_of("Content-Length: 5\r\n"), true, 0), "none");
    EXPECT_EQ(framing(head_of("Transfer-Encoding: chunked\r\n"), true, 0), "none");
    EXPECT_EQ(framing(head_of("", "HTTP/1.1 204 No Content"), false, 0), "none");
    EXPECT_EQ(framing(head_of("Content-Length: 5\r\n", "HTTP/1.1 304 Not Modified"), false, 0),
              "none");
    EXPECT_EQ(framing(head_of("", "HTTP/1.1 100 Continue"), false, 0), "none");
}

// --- redirects -----------------------------------------------------------------------------

std::string location(std::string_view text) {
    return public_location(text, addresses);
}

TEST(Location, AtTheDevicesAddressBecomesThePublicOne) {
    for (const char* own : {"http://127.0.0.1", "http://127.0.0.1:80", "https://127.0.0.1:8443",
                            "http://localhost", "HTTP://LocalHost:8080"}) {
        EXPECT_EQ(location(own + "/x?y#z"s), "https://a.relay.example:8443/x?y#z") << own;
        EXPECT_EQ(location(own), "https://a.relay.example:8443") << own;
        EXPECT_EQ(location(own + "?q"s), "https://a.relay.example:8443?q") << own;
    }
}

TEST(Location, AtTheConfiguredDeviceHostBecomesThePublicOne) {
    const Addresses other{"router.lan:8080", "http", "a.localhost:80"};
    EXPECT_EQ(public_location("http://router.lan/x", other), "http://a.localhost:80/x");
    EXPECT_EQ(public_location("http://Router.LAN:8080/x", other), "http://a.localhost:80/x");
}

TEST(Location, ElsewhereStays) {
    for (const char* other : {"/login", "login", "", "//127.0.0.1/x", "http://example.org/",
                              "ftp://127.0.0.1/", "http://127.0.0.1.example.org/", "http://",
                              "http:///x", "http://user@127.0.0.1/", "mailto:a@127.0.0.1"})
        EXPECT_EQ(location(other), other);
}

bool is_endless(const std::string& first, const std::string& location,
                const std::string& target = "/x?y") {
    return leads_to_own_https(parsed(head_of("Location: " + location + "\r\n", first))->get(),
                              target, "router.lan:8080");
}

TEST(Location, AtTheDevicesOwnHttpsOfTheSamePageIsEndless) {
    EXPECT_TRUE(is_endless("HTTP/1.1 301 Moved", "https://router.lan/x?y"));
    EXPECT_TRUE(is_endless("HTTP/1.1 308 Moved", "https://127.0.0.1:8443/x?y"));
    EXPECT_TRUE(is_endless("HTTP/1.1 302 Found", "HTTPS://localhost", "/"));
    EXPECT_FALSE(is_endless("HTTP/1.1 301 Moved", "https://router.lan/x"));
    EXPECT_FALSE(is_endless("HTTP/1.1 301 Moved", "http://router.lan/x?y"));
    EXPECT_FALSE(is_endless("HTTP/1.1 301 Moved", "https://example.org/x?y"));
    EXPECT_FALSE(is_endless("HTTP/1.1 301 Moved", "/x?y"));
    EXPECT_FALSE(is_endless("HTTP/1.1 201 Created", "https://router.lan/x?y"));
}

// --- the head for the user -----------------------------------------------------------------

std::string user_gets(const std::string& head, const UserHeadOptions& options) {
    return user_head(parsed(head)->get(), options, addresses);
}

TEST(UserHead, IsTheDevicesWithOurFraming) {
    EXPECT_EQ(
        user_gets(
            head_of("Server: x\r\nSet-Cookie: a=1\r\nset-cookie: b=2\r\nConnection: close\r\n",
                    "HTTP/1.0 203 Quite Right"),
            {{BodyKind::counted, 7}, true, true}),
        "HTTP/1.1 203 Quite Right\r\nServer: x\r\nSet-Cookie: a=1; Secure\r\nset-cookie: b=2; "
        "Secure\r\n"
        "Content-Length: 7\r\nConnection: keep-alive\r\n\r\n");
}

TEST(UserHead, SaysTheLengthOnce) {
    EXPECT_THAT(user_gets(head_of("Content-Length: 9\r\n"), {{BodyKind::counted, 9}, true, true}),
                EndsWith("200 OK\r\nContent-Length: 9\r\nConnection: keep-alive\r\n\r\n"));
}

TEST(UserHead, OfChunksIsChunkedOrEndsWithTheConnection) {
    const std::string chunked = head_of("Transfer-Encoding: chunked\r\n");
    EXPECT_EQ(user_gets(chunked, {{BodyKind::chunked}, true, true}),
              "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: keep-alive\r\n\r\n");
    EXPECT_EQ(user_gets(chunked, {{BodyKind::chunked}, false, false}),
              "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
}

TEST(UserHead, ToHeadKeepsTheLengthOfWhatItDescribes) {
    EXPECT_EQ(user_gets(head_of("Content-Length: 9\r\n"), {{BodyKind::none}, true, true}),
              "HTTP/1.1 200 OK\r\nContent-Length: 9\r\nConnection: keep-alive\r\n\r\n");
}

TEST(UserHead, LeavesOutWhatWasForTheRelay) {
    const std::string head = user_gets(
        head_of("Connection: X-Private\r\nKeep-Alive: 5\r\nX-Private: secret\r\n"
                "Proxy-Authenticate: x\r\nTrailer: y\r\nUpgrade: h2c\r\nX-Public: seen\r\n"),
        {{BodyKind::none}, false, true});
    EXPECT_EQ(head, "HTTP/1.1 200 OK\r\nX-Public: seen\r\nConnection: close\r\n\r\n");
}

TEST(UserHead, RewritesRedirects) {
    EXPECT_THAT(user_gets(head_of("Location: http://127.0.0.1/login\r\n", "HTTP/1.1 302 Found"),
                          {{BodyKind::counted, 0}, true, true}),
                HasSubstr("\r\nLocation: https://a.relay.example:8443/login\r\n"));
}

TEST(UserHead, KeepsCookiesToTheDevicesOwnName) {
    EXPECT_EQ(user_gets(head_of("Set-Cookie: a=1; Domain=relay.example; Path=/\r\n"
                                "set-cookie: b=2; domain=.relay.example\r\n"),
                        {{BodyKind::none}, true, true}),
              "HTTP/1.1 200 OK\r\nSet-Cookie: a=1; Path=/; Secure\r\nset-cookie: b=2; Secure\r\n"
              "Connection: keep-alive\r\n\r\n");
}

TEST(Cookie, LosesItsDomainAndNothingElse) {
    for (const char* cookie : {"a=1", "a=1; Path=/; HttpOnly; Secure; SameSite=Lax; Max-Age=5",
                               "domain=1; Path=/", "a=domain; Path=/domain", "", "a"})
        EXPECT_EQ(own_cookie(cookie, false), cookie);
    for (const char* cookie : {"a=1; Domain=example", "a=1;Domain=example", "a=1; DOMAIN = example",
                               "a=1; domain", "a=1; Domain=x; domain=y", "a=1;\tDomain=x"})
        EXPECT_EQ(own_cookie(cookie, false), "a=1") << cookie;
    EXPECT_EQ(own_cookie("a=1; Domain=x; Path=/", false), "a=1; Path=/");
}

TEST(Cookie, OverTlsIsForTlsOnly) {
    EXPECT_EQ(own_cookie("a=1", true), "a=1; Secure");
    EXPECT_EQ(own_cookie("a=1; Path=/", true), "a=1; Path=/; Secure");
    EXPECT_EQ(own_cookie("a=Secure", true), "a=Secure; Secure");
    for (const char* cookie : {"a=1; Secure", "a=1;secure; Path=/"})
        EXPECT_EQ(own_cookie(cookie, true), cookie);
}

TEST(UserHead, WithoutAReasonPhraseGetsTheUsualOne) {
    EXPECT_THAT(user_gets(head_of("", "HTTP/1.1 200 "), {{BodyKind::counted, 0}, true, true}),
                StartsWith("HTTP/1.1 200 OK\r\n"));
}

// --- the body ------------------------------------------------------------------------------

// Feeds `pieces`; nothing when one of them was refused.
std::optional<std::string> converted(const std::string& head,
                                     const std::vector<std::string_view>& pieces,
                                     std::uint64_t total, bool may_chunk, bool* done = nullptr) {
    const auto parser = parsed(head);
    const auto found = framing_of(*parser, false, total);
    EXPECT_TRUE(found);
    AnswerBody body(*parser, *found, may_chunk);
    std::string output;
    for (const auto piece : pieces) {
        if (body.is_done())
            break; // what follows is never looked at
        if (!body.convert(piece))
            return std::nullopt;
        output += body.output();
    }
    if (done)
        *done = body.is_done();
    return output;
}

// What a user makes of chunks.
std::string unchunked(std::string_view text) {
    http::response_parser<http::string_body> parser;
    parser.eager(true);
    boost::system::error_code error;
    const std::string whole = head_of("Transfer-Encoding: chunked\r\n") + std::string(text);
    const auto taken = parser.put(boost::asio::buffer(whole), error);
    EXPECT_FALSE(error) << error.message() << " of " << text;
    EXPECT_TRUE(parser.is_done()) << text;
    EXPECT_EQ(taken, whole.size()) << "bytes follow the last chunk";
    return parser.get().body();
}

const std::string chunked_head = head_of("Transfer-Encoding: chunked\r\n");

// Every way to cut a text into two, and into single bytes.
std::vector<std::vector<std::string_view>> cuts_of(std::string_view text) {
    std::vector<std::vector<std::string_view>> cuts = {{text}};
    for (std::size_t end = 0; end <= text.size(); ++end)
        cuts.push_back({text.substr(0, end), text.substr(end)});
    cuts.emplace_back();
    for (std::size_t i = 0; i < text.size(); ++i)
        cuts.back().push_back(text.substr(i, 1));
    return cuts;
}

TEST(AnswerBody, OfCountedBytesPassesAtEverySplit) {
    const std::string text = "hello, world";
    for (const auto& cut : cuts_of(text)) {
        bool done = false;
        EXPECT_EQ(converted(head_of("Content-Length: 12\r\n"), cut, text.size(), true, &done),
                  text);
        EXPECT_TRUE(done);
    }
}

TEST(AnswerBody, EndsAtItsLengthWhateverFollows) {
    for (const auto& cut : cuts_of("helloGET / HTTP/1.1\r\n")) {
        bool done = false;
        EXPECT_EQ(converted(head_of("Content-Length: 5\r\n"), cut, 21, true, &done), "hello");
        EXPECT_TRUE(done);
    }
}

TEST(AnswerBody, IsNotDoneBeforeItsLastByte) {
    bool done = true;
    EXPECT_EQ(converted(head_of("Content-Length: 5\r\n"), {"hell"}, 5, true, &done), "hell");
    EXPECT_FALSE(done);
}

TEST(AnswerBody, OfNoBytesIsDoneAtOnce) {
    const auto parser = parsed(head_of("Content-Length: 0\r\n"));
    EXPECT_TRUE(AnswerBody(*parser, {BodyKind::counted, 0}, true).is_done());
    EXPECT_TRUE(AnswerBody(*parser, {BodyKind::none, 0}, true).is_done());
}

constexpr std::string_view chunks =
    "5;name=\"value\"\r\nhello\r\n02\r\n, \r\nA\r\n0123456789\r\n0\r\nX-Trailer: y\r\n\r\n";
constexpr std::string_view in_chunks = "hello, 0123456789";

TEST(AnswerBody, OfChunksIsMadeAnewAtEverySplit) {
    for (const auto& cut : cuts_of(chunks)) {
        bool done = false;
        const auto output = converted(chunked_head, cut, chunks.size(), true, &done);
        ASSERT_TRUE(output);
        EXPECT_EQ(unchunked(*output), in_chunks);
        EXPECT_THAT(*output, Not(HasSubstr("name=")));
        EXPECT_THAT(*output, Not(HasSubstr("X-Trailer")));
        EXPECT_TRUE(done);
    }
}

TEST(AnswerBody, OfChunksForAnOldUserIsPlainAtEverySplit) {
    for (const auto& cut : cuts_of(chunks)) {
        bool done = false;
        EXPECT_EQ(converted(chunked_head, cut, chunks.size(), false, &done), in_chunks);
        EXPECT_TRUE(done);
    }
}

TEST(AnswerBody, OfNoChunksMayComeByteByByte) {
    constexpr std::string_view empty = "0\r\nX-Trailer: 1\r\n\r\n";
    std::vector<std::string_view> bytes;
    for (std::size_t i = 0; i < empty.size(); ++i)
        bytes.push_back(empty.substr(i, 1));
    bool done = false;
    EXPECT_EQ(converted(chunked_head, bytes, empty.size(), true, &done), "0\r\n\r\n");
    EXPECT_TRUE(done);
}

TEST(AnswerBody, OfALargeChunkPasses) {
    const std::string large(100000, 'x');
    const std::string text = "186a0\r\n" + large + "\r\n0\r\n\r\n";
    for (const std::size_t end :
         {0u, 1u, 7u, 8u, 16384u, 16391u, 65536u, 100006u, 100007u, 100010u}) {
        const std::string_view whole = text;
        const auto output =
            converted(chunked_head, {whole.substr(0, end), whole.substr(end)}, text.size(), true);
        ASSERT_TRUE(output) << end;
        EXPECT_EQ(unchunked(*output), large) << end;
    }
}

TEST(AnswerBody, OfManyChunksComesAsFew) {
    std::string text;
    for (int i = 0; i < 1000; ++i)
        text += "1\r\nx\r\n";
    text += "0\r\n\r\n";
    EXPECT_EQ(converted(chunked_head, {text}, text.size(), true),
              "3e8\r\n" + std::string(1000, 'x') + "\r\n0\r\n\r\n");
}

TEST(AnswerBody, OfChunksIsNotDoneBeforeTheLastOne) {
    for (std::size_t end = 0; end < chunks.size(); ++end) {
        bool done = true;
        ASSERT_TRUE(converted(chunked_head, {chunks.substr(0, end)}, chunks.size(), true, &done));
        EXPECT_FALSE(done) << end;
    }
}

TEST(AnswerBody, WithBrokenChunksIsRefused) {
    for (const std::string_view broken :
         {"x\r\nhello\r\n0\r\n\r\n", "-5\r\nhello\r\n0\r\n\r\n", "5 5\r\nhello\r\n0\r\n\r\n",
          "5\r\nhelloX\r\n0\r\n\r\n", "\r\n5\r\nhello\r\n", "5\nhello\n0\n\n\r\n",
          "fffffffffffffffff\r\nhello\r\n", "0x5\r\nhello\r\n0\r\n\r\n", "5\r\nhello0\r\n\r\n0"})
        for (const auto& cut : cuts_of(broken))
            EXPECT_FALSE(converted(chunked_head, cut, broken.size(), true)) << broken;
}

// A head of a chunk may be cut anywhere, but one that has no end must not be gathered for ever.
TEST(AnswerBody, WithAnEndlessChunkExtensionIsRefused) {
    const auto parser = parsed(chunked_head);
    AnswerBody body(*parser, {BodyKind::chunked}, true);
    bool goes_on = body.convert("5;");
    const std::string piece(16384, 'x');
    std::size_t fed = 0;
    for (; goes_on && fed < (4 << 20); fed += piece.size())
        goes_on = body.convert(piece);
    EXPECT_FALSE(goes_on) << "after " << fed << " bytes";
}

TEST(AnswerBody, WithEndlessTrailersIsRefused) {
    const auto parser = parsed(chunked_head);
    AnswerBody body(*parser, {BodyKind::chunked}, true);
    bool goes_on = body.convert("0\r\n");
    const std::string piece = "X: " + std::string(1000, 'x') + "\r\n";
    std::size_t fed = 0;
    for (; goes_on && fed < (4 << 20); fed += piece.size())
        goes_on = body.convert(piece);
    EXPECT_FALSE(goes_on) << "after " << fed << " bytes";
}

} // namespace
} // namespace relay
