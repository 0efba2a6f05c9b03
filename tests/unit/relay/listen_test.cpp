#include "base/listen.h"

#include "coroutines.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace relay {
namespace {

class Listening : public testing::Test {
protected:
    void SetUp() override {
        deadlines_.start([] {});
    }

    void listen() { ASSERT_TRUE(listener_.listen({"127.0.0.1", 0}, error_)) << error_; }

    Socket user() {
        Socket user(coroutines_.executor());
        user.connect({asio::ip::make_address("127.0.0.1"), listener_.port()});
        return user;
    }

    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    int taken_ = 0;
    std::function<void()> each_ = [] {};
    Listener listener_{coroutines_.executor(), deadlines_, [this](Socket) {
                           ++taken_;
                           each_();
                       }};
    std::string error_;
};

TEST_F(Listening, OnPortZeroTakesAFreeOne) {
    listen();
    EXPECT_NE(listener_.port(), 0);
}

TEST_F(Listening, OnATakenPortSaysSoInOneSentence) {
    listen();
    Listener other(coroutines_.executor(), deadlines_, [](Socket) {});
    EXPECT_FALSE(other.listen({"127.0.0.1", listener_.port()}, error_));
    EXPECT_EQ(error_, "cannot listen on 127.0.0.1 port " + std::to_string(listener_.port()) +
                          ": Address already in use");
}

TEST_F(Listening, OnAnAddressOfAnotherMachineSaysSo) {
    EXPECT_FALSE(listener_.listen({"192.0.2.1", 0}, error_));
    EXPECT_EQ(error_, "cannot listen on 192.0.2.1 port 0: Cannot assign requested address");
}

TEST_F(Listening, TakesConnectionsUntilItIsClosed) {
    listen();
    for (const int expected : {1, 2}) {
        const Socket one = user();
        coroutines_.run_until([&] { return taken_ == expected; });
    }
    const Socket last = user();
    listener_.close();
    coroutines_.settle();
    EXPECT_EQ(taken_, 2);
}

TEST_F(Listening, TakesNoMoreUntilThereIsRoom) {
    bool has_room = false;
    int taken = 0;
    Listener listener(
        coroutines_.executor(), deadlines_, [&](Socket) { ++taken; }, [&] { return has_room; });
    ASSERT_TRUE(listener.listen({"127.0.0.1", 0}, error_)) << error_;
    Socket waiting(coroutines_.executor());
    waiting.connect({asio::ip::make_address("127.0.0.1"), listener.port()});
    coroutines_.settle();
    EXPECT_EQ(taken, 0);
    has_room = true;
    listener.look_again();
    coroutines_.run_until([&] { return taken == 1; });
    has_room = false;
    listener.close();
    coroutines_.settle();
}

TEST_F(Listening, GoesOnAfterAConnectionThatCouldNotBeServed) {
    listen();
    each_ = [] { throw std::runtime_error("no room"); };
    testing::internal::CaptureStderr();
    const Socket first = user();
    coroutines_.run_until([&] { return taken_ == 1; });
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr(" error a connection failed: no room\n"));
    const Socket second = user();
    coroutines_.run_until([&] { return taken_ == 2; });
}

} // namespace
} // namespace relay
