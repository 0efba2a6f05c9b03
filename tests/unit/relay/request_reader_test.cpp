#include "front/request_reader.h"

#include "user_peer.h"

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>

namespace relay {
namespace {

using namespace std::chrono_literals;
using testing::StartsWith;

constexpr std::string_view get = "GET /1 HTTP/1.1\r\nHost: d.localhost\r\n\r\n";

class Requests : public testing::Test {
protected:
    void SetUp() override {
        deadlines_.start([] {});
        user_ = std::make_unique<UserPeer>(coroutines_, deadlines_);
        reader_ = std::make_unique<RequestReader>(user_->stream(), options_, is_draining_);
    }
    void TearDown() override {
        user_->stream().close();
        deadlines_.stop();
        coroutines_.settle();
    }

    // What the reader gives back.
    bool result_of(const std::function<Awaitable<bool>()>& read) {
        std::optional<bool> result;
        coroutines_.start([&]() -> Awaitable<void> { result = co_await read(); });
        coroutines_.run_until([&] { return result.has_value(); });
        return result.value_or(false);
    }
    bool read_head(Turn& turn) {
        return result_of([&] { return reader_->read_head(turn); });
    }
    bool read_body(Turn& turn) {
        turn.body_memory.emplace(budget_, Holders{memory_, nullptr});
        return result_of([&] { return reader_->read_body(turn); });
    }

    FrontOptions options_;
    bool is_draining_ = false;
    MemoryBudget budget_{1 << 20};
    const std::shared_ptr<MemoryAccount> memory_ = std::make_shared<MemoryAccount>();
    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    std::unique_ptr<UserPeer> user_;
    std::unique_ptr<RequestReader> reader_;
};

TEST_F(Requests, AreReadOneAfterTheOther) {
    user_->send("\r\n" + std::string(get) + "HEAD /2 HTTP/1.0\r\n\r\n");
    Turn first;
    ASSERT_TRUE(read_head(first));
    EXPECT_EQ(first.page.status, 0U);
    EXPECT_EQ(first.parser.get().target(), "/1");
    EXPECT_EQ(first.head, get);
    EXPECT_TRUE(first.keep_alive);
    EXPECT_FALSE(first.unread_input);
    EXPECT_FALSE(reader_->is_idle());
    reader_->wait_for_next();
    EXPECT_TRUE(reader_->is_idle());
    Turn second;
    ASSERT_TRUE(read_head(second));
    EXPECT_EQ(second.parser.get().target(), "/2");
    EXPECT_TRUE(second.to_head);
    EXPECT_FALSE(second.keep_alive);
    EXPECT_EQ(reader_->input(), "");
}

TEST_F(Requests, MayComeByteByByte) {
    Turn turn;
    std::optional<bool> result;
    coroutines_.start([&]() -> Awaitable<void> { result = co_await reader_->read_head(turn); });
    for (const char c : get) {
        EXPECT_FALSE(result);
        user_->send({&c, 1});
        coroutines_.settle();
    }
    coroutines_.run_until([&] { return result.has_value(); });
    EXPECT_EQ(turn.head, get);
}

TEST_F(Requests, ThatTwoParsersCouldReadDifferentlyAreRefused) {
    user_->send("GET / HTTP/1.1\nHost: d.localhost\r\n\r\n");
    Turn turn;
    ASSERT_TRUE(read_head(turn));
    EXPECT_EQ(turn.page.status, 400U);
    EXPECT_TRUE(turn.unread_input);
    EXPECT_FALSE(turn.keep_alive);
}

TEST_F(Requests, EndWithTheUser) {
    user_->send(get.substr(0, 10));
    user_->close();
    Turn turn;
    EXPECT_FALSE(read_head(turn));
}

TEST_F(Requests, ThatDoNotComeInTimeEndTheConnection) {
    options_.patience = 0s;
    Turn turn;
    EXPECT_FALSE(read_head(turn));
}

TEST_F(Requests, EndWhenTheRelayDrains) {
    is_draining_ = true;
    Turn turn;
    EXPECT_FALSE(read_head(turn));
}

TEST_F(Requests, ThatHaveComeAreReadWhenTheRelayDrains) {
    is_draining_ = true;
    reader_->input() = get; // as it is when they came with what was read before
    Turn turn;
    ASSERT_TRUE(read_head(turn));
    EXPECT_FALSE(turn.keep_alive);
}

// --- bodies ---

TEST_F(Requests, HaveTheirBodyReadWhole) {
    user_->send("POST / HTTP/1.1\r\nHost: d.localhost\r\nContent-Length: 5\r\n\r\nhe");
    Turn turn;
    ASSERT_TRUE(read_head(turn));
    EXPECT_TRUE(turn.unread_input);
    user_->send("llo" + std::string(get));
    ASSERT_TRUE(read_body(turn));
    EXPECT_EQ(turn.parser.get().body(), "hello");
    EXPECT_EQ(turn.body_bytes, 5U);
    EXPECT_FALSE(turn.unread_input);
    EXPECT_TRUE(turn.keep_alive);
    EXPECT_GE(budget_.used, 5U);
    EXPECT_EQ(reader_->input(), get) << "the next request";
}

TEST_F(Requests, OfNoChunksMayComeByteByByte) {
    user_->send("POST / HTTP/1.1\r\nHost: d.localhost\r\nTransfer-Encoding: chunked\r\n\r\n");
    Turn turn;
    ASSERT_TRUE(read_head(turn));
    std::optional<bool> result;
    turn.body_memory.emplace(budget_, Holders{memory_, nullptr});
    coroutines_.start([&]() -> Awaitable<void> { result = co_await reader_->read_body(turn); });
    for (const char c : std::string_view("0\r\nX-Trailer: 1\r\n\r\n")) {
        EXPECT_FALSE(result);
        user_->send({&c, 1});
        coroutines_.settle();
    }
    coroutines_.run_until([&] { return result.has_value(); });
    EXPECT_EQ(turn.parser.get().body(), "");
    EXPECT_EQ(turn.page.status, 0U);
}

TEST_F(Requests, AreToldToGoOnWhenTheyWaitForThat) {
    user_->send("POST / HTTP/1.1\r\nHost: d.localhost\r\nContent-Length: 2\r\n"
                "Expect: 100-continue\r\n\r\n");
    Turn turn;
    ASSERT_TRUE(read_head(turn));
    std::optional<bool> result;
    turn.body_memory.emplace(budget_, Holders{memory_, nullptr});
    coroutines_.start([&]() -> Awaitable<void> { result = co_await reader_->read_body(turn); });
    coroutines_.run_until([&] { return user_->received() == "HTTP/1.1 100 Continue\r\n\r\n"; });
    user_->send("ok");
    coroutines_.run_until([&] { return result.has_value(); });
    EXPECT_EQ(turn.parser.get().body(), "ok");
}

TEST_F(Requests, WithABodyAboveTheLimitAreRefused) {
    options_.max_body_bytes = 4;
    user_->send("POST / HTTP/1.1\r\nHost: d.localhost\r\nTransfer-Encoding: chunked\r\n\r\n"
                "5\r\nhello\r\n0\r\n\r\n");
    Turn turn;
    ASSERT_TRUE(read_head(turn));
    ASSERT_TRUE(read_body(turn));
    EXPECT_EQ(turn.page.status, 413U);
    EXPECT_TRUE(turn.unread_input);
}

TEST_F(Requests, WithoutMemoryForTheirBodyAreRefused) {
    user_->send("POST / HTTP/1.1\r\nHost: d.localhost\r\nTransfer-Encoding: chunked\r\n\r\n"
                "80000\r\n");
    Turn turn;
    ASSERT_TRUE(read_head(turn));
    std::optional<bool> result;
    turn.body_memory.emplace(budget_, Holders{memory_, nullptr});
    coroutines_.start([&]() -> Awaitable<void> { result = co_await reader_->read_body(turn); });
    const std::string piece(4096, 'x');
    for (int sent = 0; sent < 0x80000 && !result; sent += 4096) {
        user_->send(piece);
        coroutines_.settle();
    }
    coroutines_.run_until([&] { return result.has_value(); });
    EXPECT_EQ(turn.page.status, 503U);
    EXPECT_THAT(turn.page.text, StartsWith("The relay has no memory left"));
}

TEST_F(Requests, WhoseBodyStandsStillEndTheConnection) {
    user_->send("POST / HTTP/1.1\r\nHost: d.localhost\r\nContent-Length: 5\r\n\r\nhe");
    Turn turn;
    ASSERT_TRUE(read_head(turn));
    options_.patience = 0s;
    EXPECT_FALSE(read_body(turn));
}

TEST_F(Requests, ThatAreRefusedAreReadOnForAWhile) {
    Turn turn;
    bool has_ended = false;
    coroutines_.start([&]() -> Awaitable<void> {
        co_await reader_->linger();
        has_ended = true;
    });
    user_->send(std::string(100000, 'x'));
    coroutines_.settle();
    EXPECT_FALSE(has_ended);
    user_->close();
    coroutines_.run_until([&] { return has_ended; });
}

} // namespace
} // namespace relay
