#include "devices/outgoing.h"

#include <gmock/gmock.h>

namespace relay {
namespace {

class OutgoingTest : public testing::Test {
protected:
    // Writes the next packet in pieces of that size: its bytes, and the ID that its end brought.
    std::pair<std::string, std::optional<std::uint16_t>> write_next(std::size_t piece = 1000) {
        const std::size_t size = outgoing_.next().size();
        std::string packet;
        std::optional<std::uint16_t> id;
        do {
            const auto bytes = outgoing_.next().substr(0, piece);
            packet += bytes;
            id = outgoing_.written(bytes.size());
        } while (!id && packet.size() < size);
        return {packet, id};
    }

    void add_request(const std::string& packet, std::uint16_t id) {
        Reservation held(budget_);
        held.resize(packet.size());
        outgoing_.add_request(packet, id, std::move(held));
    }

    MemoryBudget budget_{1000};
    Outgoing outgoing_;
};

TEST_F(OutgoingTest, IsEmptyAtFirst) {
    EXPECT_TRUE(outgoing_.is_empty());
    EXPECT_EQ(outgoing_.next(), "");
}

TEST_F(OutgoingTest, CountsTheBytesThatAreNotWritten) {
    add_request("first", 1);
    outgoing_.add_reply("re");
    EXPECT_EQ(outgoing_.bytes(), 7U);
    outgoing_.next();
    outgoing_.written(1);
    EXPECT_EQ(outgoing_.bytes(), 6U);
}

TEST_F(OutgoingTest, GivesRequestsInTheirOrderWithTheirIds) {
    add_request("first", 1);
    add_request("second", 2);
    EXPECT_EQ(write_next(), std::pair(std::string("first"), std::optional<std::uint16_t>(1)));
    EXPECT_EQ(write_next(), std::pair(std::string("second"), std::optional<std::uint16_t>(2)));
    EXPECT_TRUE(outgoing_.is_empty());
}

TEST_F(OutgoingTest, TellsARequestsIdAtItsLastByteOnly) {
    add_request("abc", 7);
    EXPECT_EQ(outgoing_.next(), "abc");
    EXPECT_FALSE(outgoing_.written(2));
    EXPECT_EQ(outgoing_.next(), "c");
    EXPECT_EQ(outgoing_.written(1), 7);
}

TEST_F(OutgoingTest, LetsRepliesPassRequestsButNotTheOneThatHasBegun) {
    add_request("first", 1);
    add_request("second", 2);
    EXPECT_EQ(outgoing_.next(), "first");
    outgoing_.written(2);
    outgoing_.add_reply("reply");
    EXPECT_EQ(outgoing_.replies(), 1U);
    EXPECT_EQ(write_next().first, "rst");
    EXPECT_EQ(write_next().first, "reply");
    EXPECT_EQ(outgoing_.replies(), 0U);
    EXPECT_EQ(write_next().first, "second");
}

TEST_F(OutgoingTest, LetsNoReplyPassARequestThatIsBeingWrittenAndOfWhichNoByteIsOut) {
    add_request("first", 1);
    EXPECT_EQ(outgoing_.next(), "first"); // handed to the socket
    outgoing_.add_reply("reply");
    EXPECT_EQ(outgoing_.next(), "first");
}

TEST_F(OutgoingTest, HoldsARequestUntilItsLastByteIsWritten) {
    add_request(std::string(600, 'x'), 1);
    outgoing_.next();
    outgoing_.written(599);
    EXPECT_EQ(budget_.used, 600U);
    outgoing_.written(1);
    EXPECT_EQ(budget_.used, 0U);
}

} // namespace
} // namespace relay
