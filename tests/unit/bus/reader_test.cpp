#include "wire/reader.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "raw_peer.h"

namespace {

class Reader : public testing::Test {
protected:
    Reader() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), 0); }
    ~Reader() override {
        bus::reader_reset(in);
        close(m_ends[0]);
        close(m_ends[1]);
    }

    void arrive(const Bytes& bytes) {
        ASSERT_EQ(send(m_ends[1], bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }
    bus::read_result fill() { return bus::reader_fill(in, m_ends[0]); }
    bus::take_result take() { return bus::reader_take(in, got); }

    // Lets a message arrive in pieces until it is complete.
    void arrive_and_fill(const Bytes& bytes, size_t piece) {
        for (size_t at = 0; at < bytes.size(); at += piece) {
            ASSERT_EQ(take(), bus::take_result::incomplete);
            const size_t end = std::min(at + piece, bytes.size());
            arrive(Bytes(bytes.begin() + static_cast<long>(at),
                         bytes.begin() + static_cast<long>(end)));
            size_t before = 0;
            do {
                before = in.end;
                ASSERT_NE(fill(), bus::read_result::closed);
            } while (in.end != before);
        }
    }

    void expect_message(uint16_t seq, const Bytes& body) {
        ASSERT_EQ(take(), bus::take_result::message);
        EXPECT_EQ(got.header.seq, seq);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(got.body) % alignof(uint32_t), 0U);
        const uint8_t* first = reinterpret_cast<const uint8_t*>(got.body);
        EXPECT_EQ(Bytes(first, first + blob_raw_len(got.body)), body);
    }

    static Bytes body_of(size_t size) {
        Body body;
        body.bytes(7, Bytes(size, 0x5a));
        return body.encoded();
    }

    bus::reader in;
    bus::message got;
    int m_ends[2];
};

TEST_F(Reader, TakesAMessageThatComesByteByByte) {
    const Bytes body = body_of(20);
    arrive_and_fill(encode(4, 9, 0, body), 1);
    expect_message(9, body);
    EXPECT_EQ(take(), bus::take_result::incomplete);
}

TEST_F(Reader, TakesManyMessagesOfOneRead) {
    Bytes stream;
    for (uint16_t seq = 1; seq <= 10; seq++) {
        const Bytes one = encode(4, seq, 0, body_of(seq * 3U));
        stream.insert(stream.end(), one.begin(), one.end());
    }
    arrive(stream);
    ASSERT_EQ(fill(), bus::read_result::bytes);
    for (uint16_t seq = 1; seq <= 10; seq++) {
        expect_message(seq, body_of(seq * 3U));
    }
    EXPECT_EQ(take(), bus::take_result::incomplete);
}

TEST_F(Reader, TakesSmallMessagesAroundALargeOne) {
    const Bytes large = body_of(60000);
    Bytes stream = encode(4, 1, 0, body_of(8));
    for (const Bytes& next : {encode(4, 2, 0, large), encode(4, 3, 0, body_of(12))}) {
        stream.insert(stream.end(), next.begin(), next.end());
    }
    arrive(stream);
    ASSERT_EQ(fill(), bus::read_result::bytes);
    expect_message(1, body_of(8));
    while (take() == bus::take_result::incomplete) {
        ASSERT_EQ(fill(), bus::read_result::bytes);
    }
    EXPECT_EQ(got.header.seq, 2);
    EXPECT_EQ(blob_raw_len(got.body), large.size());
    ASSERT_EQ(fill(), bus::read_result::bytes);
    expect_message(3, body_of(12));
}

TEST_F(Reader, TakesTheLargestBody) {
    const Bytes body = body_of((1 << 20) - 8);
    ASSERT_EQ(body.size(), size_t{1} << 20);
    arrive_and_fill(encode(2, 5, 6, body), 50000);
    expect_message(5, body);
}

TEST_F(Reader, KeepsNoLargeBuffer) {
    arrive_and_fill(encode(4, 1, 0, body_of(500000)), 50000);
    ASSERT_EQ(take(), bus::take_result::message);
    EXPECT_EQ(in.capacity, 0U);
}

TEST_F(Reader, GrowsWithWhatArrivesNotWithWhatIsClaimed) {
    arrive(from_hex("000400010000000000100000")); // 1 MiB to come
    ASSERT_EQ(fill(), bus::read_result::bytes);
    ASSERT_EQ(take(), bus::take_result::incomplete);
    EXPECT_LE(in.capacity, 4096U);
    arrive(Bytes(10000, 0));
    for (size_t left = 10000; left > 0 && fill() == bus::read_result::bytes;) {
        ASSERT_EQ(take(), bus::take_result::incomplete);
        left = 10012 - in.end;
    }
    EXPECT_LE(in.capacity, 2U * 10012);
}

TEST_F(Reader, FailsOnWhatBeginsNoMessage) {
    arrive(from_hex("070400010000000000000004"));
    ASSERT_EQ(fill(), bus::read_result::bytes);
    EXPECT_EQ(take(), bus::take_result::failed);
}

TEST_F(Reader, TellsAnEmptySocketFromAClosedOne) {
    EXPECT_EQ(fill(), bus::read_result::nothing);
    shutdown(m_ends[1], SHUT_RDWR);
    EXPECT_EQ(fill(), bus::read_result::closed);
}

TEST_F(Reader, ClosesDescriptorsThatNobodyAskedFor) {
    int passed[2];
    ASSERT_EQ(pipe2(passed, O_NONBLOCK), 0);
    Bytes bytes = encode(4, 1, 0, body_of(4));
    iovec part = {bytes.data(), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(rights), &passed[1], sizeof(int));
    ASSERT_EQ(sendmsg(m_ends[1], &message, 0), static_cast<ssize_t>(bytes.size()));
    close(passed[1]);

    ASSERT_EQ(fill(), bus::read_result::bytes);
    EXPECT_EQ(take(), bus::take_result::message);
    char byte;
    EXPECT_EQ(read(passed[0], &byte, 1), 0) << "somebody still holds the descriptor";
    close(passed[0]);
}

} // namespace
