#include "core/mutex_guard.h"

#include <cerrno>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <optional>

#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/worker_wishes.h"

namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

constexpr int64_t FOR_EVER_MS = INT64_MAX / 2;

class BoundedMutexGuard : public testing::Test {
protected:
    ~BoundedMutexGuard() override { pthread_mutex_destroy(&mutex); }

    // Tries from a thread of its own, as any other that wants it.
    bool is_free() {
        return std::async(std::launch::async,
                          [this] {
                              return pthread_mutex_trylock(&mutex) == 0 &&
                                     pthread_mutex_unlock(&mutex) == 0;
                          })
            .get();
    }

    // Another thread that waits for the mutex; gives whether it got it.
    std::future<bool> waiter(int64_t limit) {
        return std::async(std::launch::async, [this, limit] {
            wishes.adopt();
            bounded_mutex_guard guard(&mutex, limit);
            return guard.isHeld;
        });
    }

    // Whether the waiter has looked at the mutex again since.
    bool has_looked() {
        int64_t before = clock.readings();
        return eventually([&] { return clock.readings() > before + 1; });
    }

    moved_clock clock;
    worker_wishes wishes;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

TEST_F(BoundedMutexGuard, HoldsAFreeMutexUntilTheEndOfTheBlock) {
    {
        bounded_mutex_guard guard(&mutex, 0);
        EXPECT_TRUE(guard.isHeld);
        EXPECT_FALSE(is_free());
    }
    EXPECT_TRUE(is_free());
}

TEST_F(BoundedMutexGuard, WaitsUntilTheMutexIsFree) {
    std::optional<mutex_guard> other(&mutex);
    auto result = waiter(FOR_EVER_MS);
    EXPECT_TRUE(has_looked());
    other.reset();
    EXPECT_TRUE(result.get());
    EXPECT_TRUE(is_free());
}

TEST_F(BoundedMutexGuard, GivesUpAfterItsLimitAndLeavesTheMutexToItsHolder) {
    mutex_guard other(&mutex);
    auto waited = std::async(std::launch::async, [this] {
        auto start = steady::now();
        errno = 0;
        bounded_mutex_guard guard(&mutex, 150);
        EXPECT_FALSE(guard.isHeld);
        EXPECT_EQ(errno, EBUSY);
        return steady::now() - start;
    });
    EXPECT_GE(waited.get(), milliseconds(149)); // it counts from a whole millisecond on
    EXPECT_FALSE(is_free());
}

TEST_F(BoundedMutexGuard, WaitsForItsWholeLimit) {
    mutex_guard other(&mutex);
    auto result = waiter(100000);
    EXPECT_TRUE(has_looked());
    clock.move(90000);
    EXPECT_TRUE(has_looked());
    EXPECT_EQ(result.wait_for(milliseconds(0)), std::future_status::timeout);
    clock.move(10001);
    EXPECT_FALSE(result.get());
}

TEST_F(BoundedMutexGuard, GivesUpWhenItsThreadIsLetGo) {
    mutex_guard other(&mutex);
    auto result = waiter(FOR_EVER_MS);
    EXPECT_TRUE(has_looked());
    auto start = steady::now();
    wishes.letGo = 1;
    EXPECT_FALSE(result.get());
    EXPECT_LT(steady::now() - start, std::chrono::seconds(1) * SLOWNESS);
}

TEST_F(BoundedMutexGuard, WaitsOnWhenTheSessionIsOnlyToEnd) {
    std::optional<mutex_guard> other(&mutex);
    wishes.stop = 1;
    auto result = waiter(FOR_EVER_MS);
    EXPECT_TRUE(has_looked());
    other.reset();
    EXPECT_TRUE(result.get());
}

TEST_F(BoundedMutexGuard, TakesAFreeMutexForAThreadThatWasLetGo) {
    wishes.letGo = 1;
    EXPECT_TRUE(waiter(FOR_EVER_MS).get());
}

TEST_F(BoundedMutexGuard, MayReleaseBeforeTheEndOfTheBlock) {
    bounded_mutex_guard guard(&mutex, 0);
    guard.release();
    EXPECT_FALSE(guard.isHeld);
    EXPECT_TRUE(is_free());
    guard.release(); // not held any more: nothing happens
    EXPECT_TRUE(is_free());
}

TEST_F(BoundedMutexGuard, MayLeaveTheMutexLockedForGood) {
    {
        bounded_mutex_guard guard(&mutex, 0);
        guard.keep();
    }
    EXPECT_FALSE(is_free());
    pthread_mutex_unlock(&mutex);
}

} // namespace
