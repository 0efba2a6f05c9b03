#include "base/deadlines.h"

#include "coroutines.h"
#include "failing_new.h"

#include <gmock/gmock.h>

#include <boost/asio/post.hpp>

#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace relay {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class DeadlineTest : public testing::Test {
protected:
    void SetUp() override {
        deadlines_.start([this] { ++sweeps_; });
    }

    std::unique_ptr<Deadline> deadline(int number) {
        return std::make_unique<Deadline>(deadlines_,
                                          [this, number] { passed_.push_back(number); });
    }

    void sweep() {
        const int before = sweeps_;
        coroutines_.run_until([&] { return sweeps_ > before; });
    }

    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    int sweeps_ = 0;
    std::vector<int> passed_;
};

TEST_F(DeadlineTest, PassesOnce) {
    const auto one = deadline(1);
    one->set(0s);
    sweep();
    EXPECT_THAT(passed_, ElementsAre(1));
    EXPECT_EQ(one->time(), Clock::time_point::max());
    sweep();
    EXPECT_THAT(passed_, ElementsAre(1));
}

TEST_F(DeadlineTest, ThatIsNotSetOrLiesAheadDoesNotPass) {
    const auto never = deadline(1);
    const auto later = deadline(2);
    later->set(1h);
    sweep();
    EXPECT_THAT(passed_, IsEmpty());
}

TEST_F(DeadlineTest, DoesNotPassAheadOfItsTime) {
    const auto one = deadline(1);
    const auto time = Clock::now() + 300ms;
    one->set_at(time);
    coroutines_.run_until([&] { return !passed_.empty(); });
    EXPECT_GE(Clock::now(), time);
    EXPECT_LT(Clock::now(), time + 2s);
}

TEST_F(DeadlineTest, MayBeWithdrawnOrMoved) {
    const auto withdrawn = deadline(1);
    const auto moved = deadline(2);
    withdrawn->set(0s);
    moved->set(0s);
    withdrawn->clear();
    moved->set(1h);
    sweep();
    EXPECT_THAT(passed_, IsEmpty());
}

TEST_F(DeadlineTest, MayBeSetAgainByItsOwnCall) {
    int calls = 0;
    std::unique_ptr<Deadline> one;
    one = std::make_unique<Deadline>(deadlines_, [&] {
        ++calls;
        one->set(0s);
    });
    one->set(0s);
    sweep();
    EXPECT_EQ(calls, 1) << "it was swept twice in one sweep";
    sweep();
    EXPECT_EQ(calls, 2);
}

TEST_F(DeadlineTest, MayBeDestroyedByItsOwnCall) {
    std::unique_ptr<Deadline> one;
    const auto alive = std::make_shared<int>(0);
    one = std::make_unique<Deadline>(deadlines_, [&, alive] {
        one.reset();
        EXPECT_EQ(*alive, 0) << "the function goes on after its deadline is gone";
        passed_.push_back(1);
    });
    one->set(0s);
    sweep();
    EXPECT_THAT(passed_, ElementsAre(1));
    EXPECT_EQ(one, nullptr);
}

TEST_F(DeadlineTest, MayDestroyAnyOther) {
    for (const int victim : {0, 1, 3, 4}) {
        passed_.clear();
        std::vector<std::unique_ptr<Deadline>> list(5);
        for (int i = 0; i < 5; ++i) {
            list[i] = std::make_unique<Deadline>(deadlines_, [this, i, victim, &list] {
                passed_.push_back(i);
                if (i == 2)
                    list[victim].reset();
            });
            list[i]->set(0s);
        }
        sweep();
        std::vector<int> expected = {0, 1, 2, 3, 4};
        if (victim > 2)
            std::erase(expected, victim);
        EXPECT_EQ(passed_, expected) << "2 destroyed " << victim;
    }
}

TEST_F(DeadlineTest, MayDestroyAllThatFollow) {
    std::vector<std::unique_ptr<Deadline>> list;
    for (int i = 0; i < 4; ++i) {
        list.push_back(std::make_unique<Deadline>(deadlines_, [this, i, &list] {
            passed_.push_back(i);
            list.resize(1);
        }));
        list.back()->set(0s);
    }
    sweep();
    EXPECT_THAT(passed_, ElementsAre(0));
}

TEST_F(DeadlineTest, ThatThrowsIsLoggedAndTheSweepsGoOn) {
    Deadline failing(deadlines_, [] { throw std::runtime_error("no room"); });
    const auto next = deadline(2);
    failing.set(0s);
    next->set(0s);
    testing::internal::CaptureStderr();
    sweep();
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr(" error a time limit failed: no room\n"));
    EXPECT_THAT(passed_, ElementsAre(2));
    next->set(0s);
    sweep();
    EXPECT_THAT(passed_, ElementsAre(2, 2));
}

TEST(DeadlinesAlone, GoOnWhenWhatFollowsASweepThrows) {
    Coroutines coroutines;
    Deadlines deadlines(coroutines.executor());
    int sweeps = 0;
    testing::internal::CaptureStderr();
    deadlines.start([&] {
        ++sweeps;
        throw std::runtime_error("no room");
    });
    coroutines.run_until([&] { return sweeps == 2; });
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr(" error a timer failed: no room\n"));
}

TEST(DeadlinesAlone, GoOnWithoutMemory) {
    Coroutines coroutines;
    Deadlines deadlines(coroutines.executor());
    std::optional<FailingNew> short_memory;
    int sweeps = 0;
    deadlines.start([&] {
        ++sweeps;
        // These take what Asio has kept of the operations that have ended.
        for (int i = 0; i < 4; ++i)
            asio::post(coroutines.executor(), [&short_memory] { short_memory.reset(); });
        short_memory.emplace(1);
    });
    coroutines.run_until([&] { return sweeps == 2; });
}

TEST_F(DeadlineTest, MadeInACallIsSweptToo) {
    std::unique_ptr<Deadline> made;
    Deadline maker(deadlines_, [&] {
        made = deadline(7);
        made->set(0s);
    });
    maker.set(0s);
    sweep();
    sweep();
    EXPECT_THAT(passed_, ElementsAre(7));
}

TEST_F(DeadlineTest, IsNotSweptAfterStop) {
    const auto one = deadline(1);
    sweep();
    one->set(0s);
    deadlines_.stop();
    const int before = sweeps_;
    // Sweeps of another list, begun later at the same interval: the next one here was due earlier.
    Deadlines others{coroutines_.executor()};
    int other_sweeps = 0;
    others.start([&] { ++other_sweeps; });
    coroutines_.run_until([&] { return other_sweeps == 2; });
    others.stop();
    EXPECT_EQ(sweeps_, before);
    EXPECT_THAT(passed_, IsEmpty());
}

TEST_F(DeadlineTest, IsNotSweptWhenAnEarlierCallOfTheSameTurnStops) {
    Timer earlier(coroutines_.executor());
    bool is_stopped = false;
    earlier.expires_after(0s);
    earlier.async_wait([&](error_code) {
        deadlines_.stop();
        is_stopped = true;
    });
    const auto one = deadline(1);
    one->set(0s);
    // Both timers are due before either is looked at, so that both calls are ready together.
    const auto due = Clock::now() + 500ms;
    while (Clock::now() < due)
        std::this_thread::sleep_until(due);
    coroutines_.run_until([&] { return is_stopped; });
    coroutines_.settle();
    EXPECT_EQ(sweeps_, 0);
    EXPECT_THAT(passed_, IsEmpty());
}

} // namespace
} // namespace relay
