#include "base/listen.h"

#include "coroutines.h"

#include <gmock/gmock.h>

namespace relay {
namespace {

class Listening : public testing::Test {
protected:
    std::uint16_t port() { return acceptor_.local_endpoint().port(); }

    Coroutines coroutines_;
    Acceptor acceptor_{coroutines_.executor()};
    std::string error_;
};

TEST_F(Listening, OnPortZeroTakesAFreeOne) {
    ASSERT_TRUE(listen(acceptor_, {"127.0.0.1", 0}, error_)) << error_;
    EXPECT_NE(port(), 0);
}

TEST_F(Listening, OnATakenPortSaysSoInOneSentence) {
    ASSERT_TRUE(listen(acceptor_, {"127.0.0.1", 0}, error_)) << error_;
    Acceptor other(coroutines_.executor());
    EXPECT_FALSE(listen(other, {"127.0.0.1", port()}, error_));
    EXPECT_EQ(error_, "cannot listen on 127.0.0.1 port " + std::to_string(port()) +
                          ": Address already in use");
}

TEST_F(Listening, OnAnAddressOfAnotherMachineSaysSo) {
    EXPECT_FALSE(listen(acceptor_, {"192.0.2.1", 0}, error_));
    EXPECT_EQ(error_, "cannot listen on 192.0.2.1 port 0: Cannot assign requested address");
}

TEST_F(Listening, AcceptsUntilItIsClosed) {
    ASSERT_TRUE(listen(acceptor_, {"127.0.0.1", 0}, error_)) << error_;
    int accepted = 0;
    bool ended = false;
    coroutines_.start([&]() -> Awaitable<void> {
        Socket socket(coroutines_.executor());
        bool goes_on = co_await accept(acceptor_, socket);
        while (goes_on) {
            ++accepted;
            socket.close();
            goes_on = co_await accept(acceptor_, socket);
        }
        ended = true;
    });
    for (const int expected : {1, 2}) {
        Socket user(coroutines_.executor());
        user.connect(acceptor_.local_endpoint());
        coroutines_.run_until([&] { return accepted == expected; });
    }
    acceptor_.close();
    coroutines_.run_until([&] { return ended; });
    EXPECT_EQ(accepted, 2);
}

} // namespace
} // namespace relay
