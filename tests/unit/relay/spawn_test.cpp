#include "base/spawn.h"

#include "base/signal.h"
#include "coroutines.h"
#include "failing_new.h"

#include <gmock/gmock.h>

#include <new>

namespace relay {
namespace {

using namespace std::chrono_literals;

const auto the_owner = std::make_shared<int>();

TEST(Spawn, CoroutineThatOutlivesItsOwnerIsDroppedSilently) {
    int failures = 0;
    {
        Coroutines coroutines;
        Signal never(coroutines.executor());
        auto its_owner = std::make_shared<int>();
        spawn(
            coroutines.executor(), its_owner,
            [&never]() -> Awaitable<void> { return never.wait(); }, [&] { ++failures; });
        coroutines.settle();
        its_owner.reset();
    }
    EXPECT_EQ(failures, 0);
}

TEST(Spawn, FailureEndsOneCoroutineAndIsLogged) {
    Coroutines coroutines;
    bool failed = false;
    const auto fail = []() -> Awaitable<void> {
        throw std::bad_alloc();
        co_return;
    };
    testing::internal::CaptureStderr();
    spawn(coroutines.executor(), the_owner, fail, [&] { failed = true; });
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
    spawn(coroutines.executor(), the_owner, end, [&] { failed = true; });
    coroutines.settle();
    EXPECT_TRUE(ended);
    EXPECT_FALSE(failed);
}

TEST(Spawn, CoroutineThatCannotBeStartedHasFailed) {
    Coroutines coroutines;
    testing::internal::CaptureStderr();
    int failures = 0;
    bool happened = true;
    for (int nth = 1; happened; ++nth) {
        failures = 0;
        const FailingNew failure(nth);
        spawn(
            coroutines.executor(), the_owner, []() -> Awaitable<void> { co_return; },
            [&] { ++failures; });
        run_through([&] { coroutines.settle(); });
        happened = failure.happened();
        EXPECT_EQ(failures, happened ? 1 : 0) << "allocation " << nth;
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr(" error a connection failed: std::bad_alloc\n"));
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
