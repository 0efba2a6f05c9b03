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

    MemoryBudget budget_{1000};
    Outgoing outgoing_{budget_};
};

TEST_F(OutgoingTest, IsEmptyAtFirst) {
    EXPECT_TRUE(outgoing_.is_empty());
    EXPECT_EQ(outgoing_.next(), "");
}

TEST_F(OutgoingTest, GivesRequestsInTheirOrderWithTheirIds) {
    outgoing_.add_request("first", 1);
    outgoing_.add_request("second", 2);
    EXPECT_EQ(write_next(), std::pair(std::string("first"), std::optional<std::uint16_t>(1)));
    EXPECT_EQ(write_next(), std::pair(std::string("second"), std::optional<std::uint16_t>(2)));
    EXPECT_TRUE(outgoing_.is_empty());
}

TEST_F(OutgoingTest, TellsARequestsIdAtItsLastByteOnly) {
    outgoing_.add_request("abc", 7);
    EXPECT_EQ(outgoing_.next(), "abc");
    EXPECT_FALSE(outgoing_.written(2));
    EXPECT_EQ(outgoing_.next(), "c");
    EXPECT_EQ(outgoing_.written(1), 7);
}

TEST_F(OutgoingTest, LetsRepliesPassRequestsButNotTheOneThatHasBegun) {
    outgoing_.add_request("first", 1);
    outgoing_.add_request("second", 2);
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
    outgoing_.add_request("first", 1);
    EXPECT_EQ(outgoing_.next(), "first"); // handed to the socket
    outgoing_.add_reply("reply");
    EXPECT_EQ(outgoing_.next(), "first");
}

TEST_F(OutgoingTest, HoldsAPacketUntilItsLastByteIsWritten) {
    outgoing_.add_request(std::string(600, 'x'), 1);
    outgoing_.add_reply(std::string(100, 'y'));
    EXPECT_EQ(budget_.used, 700U);
    write_next(30);
    EXPECT_EQ(budget_.used, 600U);
    outgoing_.next();
    outgoing_.written(599);
    EXPECT_EQ(budget_.used, 600U);
    outgoing_.written(1);
    EXPECT_EQ(budget_.used, 0U);
}

TEST_F(OutgoingTest, GivesBackWhatItHoldsWhenItGoes) {
    {
        Outgoing other(budget_);
        other.add_request("abc", 1);
        other.add_request("def", 2);
        other.next();
    }
    EXPECT_EQ(budget_.used, 0U);
}

} // namespace
} // namespace relay
