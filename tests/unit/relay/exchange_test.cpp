#include "devices/exchange.h"

#include "coroutines.h"

#include <gmock/gmock.h>

#include <memory>

namespace relay {
namespace {

using namespace std::chrono_literals;
using State = Exchange::State;

class ExchangeTest : public testing::Test {
protected:
    static constexpr std::size_t buffer_bytes = 200 << 10;

    ExchangeTest() {
        deadlines_.start([] {});
    }

    std::unique_ptr<Exchange> exchange(Clock::duration time = 1h) {
        return std::make_unique<Exchange>(
            Exchange::Surroundings{
                coroutines_.executor(), deadlines_, budget_, buffer_bytes, {user_, device_}},
            make_packet(PacketType::request, 0, "request"), time);
    }

    // The user's side: waits for the answer, then takes all of it.
    struct User {
        std::optional<State> answered;
        std::string taken;
        bool ended = false;
    };
    void wait_for_answer(Exchange& exchange, User& user) {
        coroutines_.start(
            [&]() -> Awaitable<void> { user.answered = co_await exchange.answered(); });
    }
    void take_all(Exchange& exchange, User& user) {
        coroutines_.start([&]() -> Awaitable<void> {
            std::vector<char> bytes;
            bool more = co_await exchange.take(bytes);
            while (more) {
                user.taken.append(bytes.data(), bytes.size());
                more = co_await exchange.take(bytes);
            }
            EXPECT_TRUE(bytes.empty());
            user.ended = true;
        });
    }

    // The session's side.
    void wait_for_room(Exchange& exchange, Clock::duration limit, std::optional<bool>& result) {
        coroutines_.start([&exchange, limit, &result]() -> Awaitable<void> {
            result = co_await exchange.room(Clock::now() + limit);
        });
    }
    static void give(Exchange& exchange, std::string_view bytes) { exchange.give(bytes); }

    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    MemoryBudget budget_{16 << 20};
    const std::shared_ptr<MemoryAccount> user_ = std::make_shared<MemoryAccount>();
    const std::shared_ptr<MemoryAccount> device_ = std::make_shared<MemoryAccount>();
};

TEST_F(ExchangeTest, GoesFromWaitingToComplete) {
    const auto one = exchange();
    User user;
    EXPECT_EQ(one->state(), State::waiting);
    EXPECT_TRUE(one->is_open());
    wait_for_answer(*one, user);

    one->send_as(7);
    EXPECT_EQ(one->state(), State::out);
    EXPECT_TRUE(one->is_open());
    coroutines_.settle();
    EXPECT_FALSE(user.answered);

    one->begin(5);
    EXPECT_EQ(one->state(), State::answering);
    EXPECT_FALSE(one->is_open());
    coroutines_.settle();
    EXPECT_EQ(user.answered, State::answering);
    EXPECT_EQ(one->answer_size(), 5u);

    take_all(*one, user);
    give(*one, "he");
    coroutines_.settle();
    EXPECT_EQ(user.taken, "he");
    give(*one, "llo");
    one->complete();
    coroutines_.settle();
    EXPECT_EQ(user.taken, "hello");
    EXPECT_TRUE(user.ended);
    EXPECT_EQ(one->state(), State::complete);
}

TEST_F(ExchangeTest, IsSentWithItsIdFilledIn) {
    const auto one = exchange();
    EXPECT_EQ(one->send_as(0xBEEF).bytes, make_packet(PacketType::request, 0xBEEF, "request"));
}

TEST_F(ExchangeTest, OfAnAnswerThatCameBeforeAnybodyWaitedIsTakenWhole) {
    const auto one = exchange();
    User user;
    one->send_as(1);
    one->begin(2);
    give(*one, "ab");
    one->complete();
    wait_for_answer(*one, user);
    EXPECT_EQ(user.answered, State::complete);
    EXPECT_FALSE(one->is_drained());
    take_all(*one, user);
    EXPECT_TRUE(one->is_drained());
    EXPECT_EQ(user.taken, "ab");
    EXPECT_TRUE(user.ended);
}

TEST_F(ExchangeTest, OfAnEmptyAnswerEndsAtOnce) {
    const auto one = exchange();
    User user;
    one->send_as(1);
    one->begin(0);
    one->complete();
    take_all(*one, user);
    EXPECT_TRUE(user.ended);
    EXPECT_EQ(user.taken, "");
}

TEST_F(ExchangeTest, TimesOutWhileItWaits) {
    const auto one = exchange(0s);
    User user;
    wait_for_answer(*one, user);
    coroutines_.run_until([&] { return user.answered.has_value(); });
    EXPECT_EQ(user.answered, State::timed_out);
    EXPECT_FALSE(one->is_open());
}

TEST_F(ExchangeTest, LeavesTheTimeToTheSessionOnceItIsOut) {
    const auto one = exchange(0s);
    one->send_as(1);
    Deadline later(deadlines_, [] {});
    later.set(300ms);
    coroutines_.run_until([&] { return later.time() == Clock::time_point::max(); });
    EXPECT_EQ(one->state(), State::out);
}

TEST_F(ExchangeTest, MayBeAnsweredWithThePacketThatItsTypeAsksFor) {
    EXPECT_EQ(exchange()->answer_type(), PacketType::answer);
    const Exchange token({coroutines_.executor(), deadlines_, budget_, buffer_bytes, {}},
                         make_packet(PacketType::web_token, 0, "{}"), 1h);
    EXPECT_EQ(token.answer_type(), PacketType::web_token);
}

TEST_F(ExchangeTest, ThatFailsMidwayGivesWhatCameAndEnds) {
    const auto one = exchange();
    User user;
    one->send_as(1);
    one->begin(10);
    give(*one, "half");
    take_all(*one, user);
    EXPECT_EQ(user.taken, "half");
    EXPECT_FALSE(user.ended);
    one->fail(State::gone);
    coroutines_.settle();
    EXPECT_TRUE(user.ended);
    EXPECT_EQ(one->state(), State::gone);
}

TEST_F(ExchangeTest, ThatIsCompleteFailsNoMore) {
    const auto one = exchange();
    one->send_as(1);
    one->begin(0);
    one->complete();
    one->fail(State::gone);
    EXPECT_EQ(one->state(), State::complete);
}

TEST_F(ExchangeTest, BuffersUpToItsBound) {
    const auto one = exchange();
    one->send_as(1);
    one->begin(1 << 20);
    give(*one, std::string(buffer_bytes - 1, 'x'));
    EXPECT_FALSE(one->is_full());
    give(*one, "x");
    EXPECT_TRUE(one->is_full());
}

TEST_F(ExchangeTest, BuffersOneRecordAtATimeWhenTheMemoryOfAllIsSpent) {
    const auto one = exchange();
    one->send_as(1);
    one->begin(1 << 20);
    Reservation others(budget_);
    others.resize(2 * budget_.limit);
    EXPECT_FALSE(one->is_full()) << "a record keeps it moving";
    give(*one, std::string(16 << 10, 'x'));
    EXPECT_TRUE(one->is_full());
    others.resize(0);
    EXPECT_FALSE(one->is_full());
}

TEST_F(ExchangeTest, BuffersOneRecordAtATimeWhenTheShareOfAHolderIsUsedUp) {
    for (const auto& holder : {user_, device_}) {
        const auto one = exchange();
        one->send_as(1);
        one->begin(1 << 20);
        Reservation other(budget_, {holder, nullptr});
        other.resize(budget_.limit / 4);
        give(*one, "x");
        EXPECT_TRUE(one->is_full());
        other.resize(0);
        EXPECT_FALSE(one->is_full());
    }
}

TEST_F(ExchangeTest, HasRoomAgainWhenTheUserTakes) {
    const auto one = exchange();
    User user;
    std::optional<bool> has_room;
    one->send_as(1);
    one->begin(1 << 20);
    give(*one, std::string(buffer_bytes, 'x'));
    wait_for_room(*one, 1h, has_room);
    EXPECT_FALSE(has_room);
    take_all(*one, user);
    coroutines_.settle();
    EXPECT_EQ(has_room, true);
    EXPECT_EQ(user.taken.size(), buffer_bytes);
}

TEST_F(ExchangeTest, HasRoomAtOnceWhileItIsNotFull) {
    const auto one = exchange();
    std::optional<bool> has_room;
    wait_for_room(*one, 0s, has_room);
    EXPECT_EQ(has_room, true);
}

TEST_F(ExchangeTest, WaitsForRoomNoLongerThanTheLimit) {
    const auto one = exchange();
    std::optional<bool> has_room;
    one->send_as(1);
    one->begin(1 << 20);
    give(*one, std::string(buffer_bytes, 'x'));
    const auto began = Clock::now();
    wait_for_room(*one, 50ms, has_room);
    coroutines_.run_until([&] { return has_room.has_value(); });
    EXPECT_EQ(has_room, false);
    EXPECT_GE(Clock::now() - began, 50ms);
}

TEST_F(ExchangeTest, AbandonedLetsTheSessionGoOnAndDropsWhatComes) {
    const auto one = exchange();
    std::optional<bool> has_room;
    one->send_as(1);
    one->begin(1 << 20);
    give(*one, std::string(buffer_bytes, 'x'));
    wait_for_room(*one, 1h, has_room);
    one->abandon();
    coroutines_.settle();
    EXPECT_EQ(has_room, true);
    EXPECT_EQ(budget_.used, 0u);
    give(*one, std::string(buffer_bytes, 'x'));
    EXPECT_FALSE(one->is_full());
    EXPECT_EQ(budget_.used, 0u);
}

TEST_F(ExchangeTest, AbandonedWhileOpenIsGone) {
    const auto waiting = exchange();
    waiting->abandon();
    EXPECT_EQ(waiting->state(), State::gone);
    const auto out = exchange();
    out->send_as(1);
    out->abandon();
    EXPECT_EQ(out->state(), State::gone);
    EXPECT_FALSE(out->is_open());
}

TEST_F(ExchangeTest, HoldsItsPacketUntilWhoeverSendsItLetsGo) {
    const auto one = exchange();
    const std::size_t size = PacketHeader::size + 7;
    EXPECT_EQ(budget_.used, size);
    {
        const auto packet = one->send_as(1);
        EXPECT_EQ(packet.bytes.size(), size);
        one->abandon();
        EXPECT_EQ(budget_.used, size) << "it is still to be sent";
        EXPECT_EQ(user_->used, size);
        EXPECT_EQ(device_->used, size);
    }
    EXPECT_EQ(budget_.used, 0u);
    EXPECT_EQ(user_->used + device_->used, 0u);
}

TEST_F(ExchangeTest, AbandonedWhileItWaitsHoldsNothing) {
    const auto one = exchange();
    one->abandon();
    EXPECT_EQ(budget_.used, 0u);
}

TEST_F(ExchangeTest, HoldsWhatItsBuffersTakeUp) {
    const auto one = exchange();
    one->send_as(1);
    one->begin(150);
    give(*one, std::string(100, 'x'));
    EXPECT_GE(budget_.used, 100u);
    std::vector<char> bytes;
    const auto take = [&]() -> Awaitable<void> { co_await one->take(bytes); };
    coroutines_.start(take);
    EXPECT_EQ(budget_.used, bytes.capacity()) << "the user is still sending it";
    give(*one, std::string(50, 'x'));
    EXPECT_GE(budget_.used, bytes.capacity() + 50);
    coroutines_.start(take);
    EXPECT_GE(budget_.used, 150u) << "the first buffer waits to be filled again";
    one->abandon();
    EXPECT_EQ(budget_.used, 0u);
}

TEST_F(ExchangeTest, DestroyedBeforeItIsSentGivesItsMemoryBack) {
    exchange().reset();
    EXPECT_EQ(budget_.used, 0u);
}

} // namespace
} // namespace relay
