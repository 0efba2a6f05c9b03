#include "broker/out_queue.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "raw_peer.h"

namespace {

class OutQueue : public testing::Test {
protected:
    OutQueue() {
        bus::out_queue_init(out);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, m_ends), 0);
    }
    ~OutQueue() override {
        bus::out_queue_free(out);
        close(m_ends[0]);
        close(m_ends[1]);
    }

    bool push(uint16_t seq, size_t body_bytes, size_t sent = 0) {
        Body body;
        body.bytes(7, Bytes(body_bytes - 8, static_cast<uint8_t>(seq)));
        expected[seq] = encode(2, seq, 0, body.encoded());
        return bus::out_queue_push(out, {2, seq, 0}, body.head(), sent);
    }
    bool flush() { return bus::out_queue_flush(out, m_ends[0]); }

    Bytes read_all() {
        Bytes all;
        Bytes some(65536);
        while (out.bytes > 0 || some.size() == 65536) {
            EXPECT_TRUE(flush());
            some.resize(65536);
            const ssize_t got = recv(m_ends[1], some.data(), some.size(), 0);
            some.resize(got > 0 ? static_cast<size_t>(got) : 0);
            all.insert(all.end(), some.begin(), some.end());
        }
        return all;
    }

    bus::out_queue out;
    std::map<uint16_t, Bytes> expected;
    int m_ends[2];
};

TEST_F(OutQueue, SendsMessagesInOrderThroughASocketThatIsOftenFull) {
    Bytes wanted;
    for (uint16_t seq = 1; seq <= 50; seq++) {
        ASSERT_TRUE(push(seq, seq * 400U));
        wanted.insert(wanted.end(), expected[seq].begin(), expected[seq].end());
    }
    EXPECT_EQ(out.bytes, wanted.size());
    EXPECT_TRUE(read_all() == wanted);
    EXPECT_EQ(out.bytes, 0U);
}

TEST_F(OutQueue, SendsTheRestOfAMessage) {
    ASSERT_TRUE(push(1, 1000, 300));
    EXPECT_TRUE(read_all() == Bytes(expected[1].begin() + 300, expected[1].end()));
}

TEST_F(OutQueue, RefusesMoreThanAMebibyte) {
    ASSERT_TRUE(push(1, 600000));
    EXPECT_FALSE(push(2, 600000));
    EXPECT_TRUE(push(3, 400000));
    EXPECT_FALSE(push(4, 100000));
    EXPECT_TRUE(push(5, 40000));
    EXPECT_LE(out.bytes, size_t{1} << 20);
}

TEST_F(OutQueue, TakesTheLargestMessageWhenEmpty) {
    EXPECT_TRUE(push(1, 1 << 20));
    EXPECT_FALSE(push(2, 8));
}

TEST_F(OutQueue, TellsABrokenConnection) {
    ASSERT_TRUE(push(1, 1000));
    shutdown(m_ends[1], SHUT_RDWR);
    EXPECT_FALSE(flush());
}

} // namespace
