#include "base/arrival.h"

#include "coroutines.h"

#include <boost/asio/write.hpp>

#include <optional>

namespace relay {
namespace {

using namespace std::string_literals;
using State = ProxyHeader::State;

// A connection of a proxy over loopback, and what is received from it.
class Arriving : public testing::Test {
protected:
    void SetUp() override {
        Acceptor acceptor(coroutines_.executor(), {asio::ip::address_v4::loopback(), 0});
        proxy_.connect(acceptor.local_endpoint());
        acceptor.accept(socket_);
        coroutines_.start([this]() -> Awaitable<void> {
            header_ = co_await receive_proxy_header(socket_, input_);
        });
    }

    // One write, received before the next one.
    void send(const std::string& bytes) {
        asio::write(proxy_, asio::buffer(bytes));
        sent_ += bytes.size();
        coroutines_.run_until([&] { return header_ || input_.size() == sent_ + unused; });
    }
    State state() {
        coroutines_.run_until([this] { return header_.has_value(); });
        return header_ ? header_->state : State::undecided;
    }

    // While a read is under way, the input has room for it.
    static constexpr std::size_t unused = max_proxy_header_bytes;

    Coroutines coroutines_;
    Socket proxy_{coroutines_.executor()};
    Socket socket_{coroutines_.executor()};
    std::string input_;
    std::size_t sent_ = 0;
    std::optional<ProxyHeader> header_;
};

TEST_F(Arriving, HeaderIsTakenOutOfWhatCame) {
    send("PROXY TCP4 192.0.2.1 192.0.2.2 1 2\r\nGET / HTTP/1.1\r\n");
    EXPECT_EQ(state(), State::complete);
    EXPECT_EQ(header_->client->address().to_string(), "192.0.2.1");
    EXPECT_EQ(input_, "GET / HTTP/1.1\r\n");
}

TEST_F(Arriving, HeaderMayComeByteByByte) {
    for (const char c : "PROXY TCP4 192.0.2.1 192.0.2.2 1 2\r\n"s)
        send({c});
    EXPECT_EQ(state(), State::complete);
    EXPECT_EQ(input_, "");
}

TEST_F(Arriving, WithoutAHeaderNothingIsLost) {
    send("P");
    EXPECT_FALSE(header_) << "it may become a header";
    send("OST / HTTP/1.1\r\n");
    EXPECT_EQ(state(), State::none);
    EXPECT_EQ(input_, "POST / HTTP/1.1\r\n");
}

TEST_F(Arriving, BrokenHeaderIsSeenAtOnce) {
    send("PROXY TCP9 ");
    EXPECT_FALSE(header_);
    send("\r\n");
    EXPECT_EQ(state(), State::broken);
    EXPECT_EQ(header_->mistake, "its line names none of TCP4, TCP6 and UNKNOWN");
}

TEST_F(Arriving, ConnectionThatEndsWithinAHeaderHasABrokenOne) {
    send("PROXY TCP4 ");
    proxy_.close();
    EXPECT_EQ(state(), State::broken);
    EXPECT_EQ(header_->mistake, "the connection ended within it");
}

TEST_F(Arriving, ConnectionThatEndsBeforeHasNone) {
    proxy_.close();
    EXPECT_EQ(state(), State::undecided);
    EXPECT_EQ(input_, "");
}

TEST_F(Arriving, EndsWhenTheSocketIsClosed) {
    send("PROX");
    socket_.close();
    EXPECT_EQ(state(), State::undecided);
}

} // namespace
} // namespace relay
