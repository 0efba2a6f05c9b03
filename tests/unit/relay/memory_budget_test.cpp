#include "base/memory_budget.h"

#include <gtest/gtest.h>

namespace relay {
namespace {

TEST(MemoryBudget, IsSpentAtItsLimit) {
    MemoryBudget budget{100};
    Reservation part(budget);
    EXPECT_FALSE(budget.is_spent());
    part.resize(99);
    EXPECT_FALSE(budget.is_spent());
    part.resize(100);
    EXPECT_TRUE(budget.is_spent());
    part.resize(10);
    EXPECT_FALSE(budget.is_spent());
    EXPECT_EQ(budget.used, 10u);
    EXPECT_EQ(part.bytes(), 10u);
}

TEST(MemoryBudget, MayBeOverdrawn) {
    MemoryBudget budget{100};
    Reservation part(budget);
    part.resize(250);
    EXPECT_TRUE(budget.is_spent());
    EXPECT_EQ(budget.used, 250u);
}

TEST(MemoryBudget, IsTheSumOfItsParts) {
    MemoryBudget budget{100};
    Reservation one(budget);
    one.resize(30);
    {
        Reservation two(budget);
        two.resize(70);
        EXPECT_TRUE(budget.is_spent());
        one.resize(20);
        EXPECT_EQ(budget.used, 90u);
    }
    EXPECT_EQ(budget.used, 20u) << "a part that ended is given back";
}

} // namespace
} // namespace relay
