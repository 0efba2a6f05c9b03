#include "base/memory_budget.h"

#include <gtest/gtest.h>

#include <vector>

namespace relay {
namespace {

std::shared_ptr<MemoryAccount> somebody() {
    return std::make_shared<MemoryAccount>();
}

TEST(MemoryBudget, IsTheSumOfItsParts) {
    MemoryBudget budget{100};
    Reservation one(budget);
    one.resize(30);
    {
        Reservation two(budget);
        two.resize(70);
        EXPECT_EQ(budget.left(), 0u);
        one.resize(20);
        EXPECT_EQ(budget.left(), 10u);
    }
    EXPECT_EQ(budget.used, 20u) << "a part that ended is given back";
}

TEST(MemoryBudget, MayBeOverdrawn) {
    MemoryBudget budget{100};
    Reservation part(budget);
    part.resize(250);
    EXPECT_EQ(budget.used, 250u);
    EXPECT_EQ(budget.left(), 0u);
}

TEST(MemoryBudget, PartsThatMoveAreCountedOnce) {
    MemoryBudget budget{100};
    const auto user = somebody();
    {
        Reservation one(budget, {user, nullptr});
        one.resize(40);
        const Reservation other(std::move(one));
        EXPECT_EQ(other.bytes(), 40u);
        EXPECT_EQ(budget.used, 40u);
        EXPECT_EQ(user->used, 40u);
    }
    EXPECT_EQ(budget.used, 0u);
    EXPECT_EQ(user->used, 0u);
}

constexpr std::size_t MB = 1 << 20;
constexpr std::size_t KB = 1 << 10;

void take_all(Reservation& part) {
    while (part.may_grow(KB))
        part.resize(part.bytes() + KB);
}

TEST(MemoryShares, AreAFifthForWhoIsAlone) {
    MemoryBudget budget{100 * MB};
    Reservation user(budget, {somebody(), nullptr});
    EXPECT_TRUE(user.may_grow(20 * MB));
    EXPECT_FALSE(user.may_grow(20 * MB + 8));
    Reservation device(budget, {nullptr, somebody()});
    EXPECT_TRUE(device.may_grow(20 * MB));
    EXPECT_FALSE(device.may_grow(20 * MB + 8));
}

TEST(MemoryShares, CountAllThatOneHolderHas) {
    MemoryBudget budget{100 * MB};
    const auto user = somebody();
    Reservation one(budget, {user, nullptr});
    one.resize(12 * MB);
    const Reservation two(budget, {user, somebody()});
    EXPECT_TRUE(two.may_grow(8 * MB));
    EXPECT_FALSE(two.may_grow(8 * MB + 8));
}

TEST(MemoryShares, LeaveAPageForWhoComesAfter200WhoWantAll) {
    MemoryBudget budget{64 * MB};
    std::vector<Reservation> hogs;
    hogs.reserve(200);
    for (int i = 0; i < 200; ++i)
        take_all(hogs.emplace_back(budget, Holders{somebody(), somebody()}));
    EXPECT_LE(budget.used, 80 * MB);
    const Reservation next(budget, {somebody(), somebody()});
    EXPECT_TRUE(next.may_grow(64 * KB));
    EXPECT_FALSE(next.may_grow(64 * KB + 1));
}

TEST(MemoryShares, AreUsedUpWhenTheBudgetIsOverdrawnByAQuarter) {
    MemoryBudget budget{64 * MB};
    Reservation others(budget);
    others.resize(80 * MB);
    EXPECT_FALSE(Reservation(budget, {somebody(), nullptr}).may_grow(1));
    EXPECT_FALSE(Reservation(budget).may_grow(1));
}

} // namespace
} // namespace relay
