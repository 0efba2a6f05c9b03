#include "front/answer_relay.h"

#include "user_peer.h"

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>

namespace relay {
namespace {

using namespace std::chrono_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class Answers : public testing::Test {
protected:
    void SetUp() override {
        deadlines_.start([] {});
        user_ = std::make_unique<UserPeer>(coroutines_, deadlines_);
        asked("GET / HTTP/1.1");
    }
    void TearDown() override {
        exchange_.abandon();
        user_->stream().close();
        coroutines_.run_until([this] { return !is_relaying_ || result_.has_value(); });
        deadlines_.stop();
        coroutines_.settle();
    }

    void asked(const std::string& line) {
        const std::string head = line + "\r\nHost: d.localhost\r\n\r\n";
        turn_.emplace();
        error_code error;
        turn_->page = read_head(turn_->parser, head, error);
        ASSERT_EQ(turn_->page.status, 0U);
        turn_->route = route_of(turn_->parser.get(), "localhost");
        turn_->to_head = turn_->parser.get().method() == http::verb::head;
        turn_->keep_alive = turn_->parser.keep_alive();
        turn_->scheme = "http";
    }

    // The device begins to answer; `size` of all, `first` what has come.
    void begin(std::size_t size, std::string_view first) {
        exchange_.send_as(1);
        exchange_.begin(size);
        exchange_.give(first);
        is_relaying_ = true;
        coroutines_.start([this]() -> Awaitable<void> {
            result_ = co_await relay_answer(*turn_, exchange_, user_->stream(), options_);
        });
    }

    // A whole answer.
    bool relayed(std::string_view answer) {
        exchange_.send_as(1);
        exchange_.begin(answer.size());
        if (!answer.empty())
            exchange_.give(answer);
        exchange_.complete();
        is_relaying_ = true;
        coroutines_.start([this]() -> Awaitable<void> {
            result_ = co_await relay_answer(*turn_, exchange_, user_->stream(), options_);
        });
        return result();
    }
    bool result() {
        coroutines_.run_until([this] { return result_.has_value(); });
        return result_.value_or(false);
    }

    FrontOptions options_;
    MemoryBudget budget_{16 << 20};
    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    std::unique_ptr<UserPeer> user_;
    Exchange exchange_{
        Exchange::Surroundings{coroutines_.executor(), deadlines_, budget_, 1 << 20, Holders{}},
        make_packet(PacketType::request, 0, "GET /"), 1h};
    std::optional<Turn> turn_;
    bool is_relaying_ = false;
    std::optional<bool> result_;
};

TEST_F(Answers, ArePassedOn) {
    EXPECT_TRUE(relayed("HTTP/1.1 201 Created\r\nContent-Length: 5\r\nX-Own: yes\r\n\r\nhello"));
    EXPECT_THAT(user_->received(), StartsWith("HTTP/1.1 201 Created\r\n"));
    EXPECT_THAT(user_->received(), HasSubstr("X-Own: yes\r\n"));
    EXPECT_THAT(user_->received(), EndsWith("\r\n\r\nhello"));
    EXPECT_EQ(turn_->status, 201U);
    EXPECT_EQ(turn_->sent_bytes, user_->received().size());
    EXPECT_TRUE(turn_->keep_alive);
}

TEST_F(Answers, BehindInterimOnesArePassedOn) {
    EXPECT_TRUE(relayed("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n"
                        "HTTP/1.1 204 No Content\r\n\r\n"));
    EXPECT_THAT(user_->received(), StartsWith("HTTP/1.1 204 "));
}

TEST_F(Answers, FlowAsTheyCome) {
    begin(60, "HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n0123");
    coroutines_.run_until([this] { return user_->received().ends_with("0123"); });
    EXPECT_FALSE(result_);
    exchange_.give(std::string_view("456789"));
    coroutines_.run_until([this] { return user_->received().ends_with("456789"); });
    exchange_.give(std::string_view("abcdefghij"));
    exchange_.complete();
    EXPECT_TRUE(result());
    EXPECT_THAT(user_->received(), EndsWith("0123456789abcdefghij"));
}

TEST_F(Answers, ToHeadRequestsHaveNoBody) {
    asked("HEAD / HTTP/1.1");
    EXPECT_TRUE(relayed("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n"));
    EXPECT_THAT(user_->received(), HasSubstr("Content-Length: 5\r\n"));
    EXPECT_THAT(user_->received(), EndsWith("\r\n\r\n"));
}

TEST_F(Answers, OfNothingAtAllBecomeAPage) {
    EXPECT_TRUE(relayed(""));
    EXPECT_EQ(turn_->page.status, 502U);
    EXPECT_THAT(turn_->page.text, HasSubstr("closed without an answer"));
    EXPECT_EQ(user_->received(), "");
}

TEST_F(Answers, ThatAreNoHttpBecomeAPage) {
    EXPECT_TRUE(relayed("SSH-2.0-dropbear\r\n\r\n"));
    EXPECT_THAT(turn_->page.text, HasSubstr("no valid HTTP response"));
    EXPECT_EQ(user_->received(), "");
}

TEST_F(Answers, WithHalfAHeadBecomeAPage) {
    EXPECT_TRUE(relayed("HTTP/1.1 200 OK\r\nContent-"));
    EXPECT_THAT(turn_->page.text, HasSubstr("no complete header"));
}

TEST_F(Answers, ShorterThanTheySayBecomeAPage) {
    EXPECT_TRUE(relayed("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello"));
    EXPECT_EQ(turn_->page.status, 502U);
    EXPECT_EQ(user_->received(), "");
}

TEST_F(Answers, ThatLeadToTheDevicesOwnHttpsBecomeAPage) {
    EXPECT_TRUE(relayed("HTTP/1.1 301 Moved\r\nLocation: https://127.0.0.1/\r\n"
                        "Content-Length: 0\r\n\r\n"));
    EXPECT_EQ(turn_->page.note, "https_redirect");
    EXPECT_EQ(user_->received(), "");
}

TEST_F(Answers, ThatBreakOffEndTheConnection) {
    begin(60, "HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n0123");
    coroutines_.run_until([this] { return user_->received().ends_with("0123"); });
    exchange_.fail(Exchange::State::gone);
    EXPECT_FALSE(result());
    EXPECT_EQ(turn_->page.note, "cut_off");
    EXPECT_EQ(turn_->status, 200U);
    EXPECT_FALSE(user_->was_reset()) << "the length tells";
}

TEST_F(Answers, ThatOnlyTheirEndLimitsAreResetWhenTheyBreakOff) {
    asked("GET / HTTP/1.0");
    begin(100, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\n0123\r\n");
    coroutines_.run_until([this] { return user_->received().ends_with("0123"); });
    exchange_.fail(Exchange::State::gone);
    EXPECT_FALSE(result());
    coroutines_.run_until([this] { return user_->was_reset(); });
}

TEST_F(Answers, EndWithTheUser) {
    const std::string large(8 << 20, 'x');
    options_.patience = 0s; // a user who takes nothing is not waited for
    begin(large.size() + 100,
          "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(large.size()) + "\r\n\r\n");
    user_->close();
    exchange_.give(std::string_view(large).substr(0, 1 << 20));
    coroutines_.settle();
    exchange_.give(std::string_view(large).substr(0, 1 << 20));
    EXPECT_FALSE(result());
    EXPECT_EQ(turn_->page.note, "") << "it is not the answer that broke off";
}

} // namespace
} // namespace relay
