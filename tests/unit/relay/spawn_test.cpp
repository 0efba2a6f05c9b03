#include "base/spawn.h"

#include "base/signal.h"
#include "coroutines.h"

#include <gmock/gmock.h>

#include <new>

namespace relay {
namespace {

using namespace std::chrono_literals;

TEST(Spawn, FailureEndsOneCoroutineAndIsLogged) {
    Coroutines coroutines;
    bool failed = false;
    const auto fail = []() -> Awaitable<void> {
        throw std::bad_alloc();
        co_return;
    };
    testing::internal::CaptureStderr();
    spawn(coroutines.executor(), fail(), [&] { failed = true; });
    coroutines.settle();
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr(" error a connection failed: std::bad_alloc\n"));
    EXPECT_TRUE(failed);
}

TEST(Spawn, CoroutineThatEndsHasNotFailed) {
    Coroutines coroutines;
    bool ended = false;
    bool failed = false;
    const auto end = [&]() -> Awaitable<void> {
        ended = true;
        co_return;
    };
    spawn(coroutines.executor(), end(), [&] { failed = true; });
    coroutines.settle();
    EXPECT_TRUE(ended);
    EXPECT_FALSE(failed);
}

class SignalTest : public testing::Test {
protected:
    void wait(Clock::time_point limit) {
        coroutines_.start([this, limit]() -> Awaitable<void> {
            co_await signal_.wait(limit);
            ++woken_;
        });
    }

    Coroutines coroutines_;
    Signal signal_{coroutines_.executor()};
    int woken_ = 0;
};

TEST_F(SignalTest, WakesWhoWaits) {
    wait(Clock::time_point::max());
    EXPECT_EQ(woken_, 0);
    signal_.notify();
    coroutines_.settle();
    EXPECT_EQ(woken_, 1);
}

TEST_F(SignalTest, IsForgottenWhenNobodyWaits) {
    signal_.notify();
    wait(Clock::time_point::max());
    EXPECT_EQ(woken_, 0);
    signal_.notify();
    coroutines_.settle();
    EXPECT_EQ(woken_, 1);
}

TEST_F(SignalTest, WaitEndsAtItsLimit) {
    const auto limit = Clock::now() + 30ms;
    wait(limit);
    coroutines_.run_until([this] { return woken_ == 1; });
    EXPECT_GE(Clock::now(), limit);
    wait(Clock::time_point::max()); // the former limit is no more
    coroutines_.settle();
    EXPECT_EQ(woken_, 1);
    signal_.notify();
    coroutines_.settle();
    EXPECT_EQ(woken_, 2);
}

} // namespace
} // namespace relay
