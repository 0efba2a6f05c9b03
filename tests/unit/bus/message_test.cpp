#include "wire/message.h"

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "raw_peer.h"

namespace {

Bytes prologue(const char* hex) {
    return from_hex(hex);
}

TEST(MessageLength, IsHeaderAndBody) {
    EXPECT_EQ(bus::message_length(prologue("000400010000000000000004").data()), 12U);
    EXPECT_EQ(bus::message_length(prologue("00040001000000000000000c").data()), 20U);
    EXPECT_EQ(bus::message_length(prologue("000400010000000000100000").data()), 8U + (1 << 20));
}

struct Invalid {
    const char* why;
    const char* hex;
};
class InvalidPrologue : public testing::TestWithParam<Invalid> {};

TEST_P(InvalidPrologue, BeginsNoMessage) {
    EXPECT_EQ(bus::message_length(prologue(GetParam().hex).data()), 0U) << GetParam().why;
}

INSTANTIATE_TEST_SUITE_P(
    All, InvalidPrologue,
    testing::Values(Invalid{"another version", "010400010000000000000004"},
                    Invalid{"a body shorter than its own head", "000400010000000000000003"},
                    Invalid{"a body of no bytes", "000400010000000000000000"},
                    Invalid{"a body above 1 MiB", "000400010000000000100004"},
                    Invalid{"a body of 16 MiB", "000400010000000000fffffc"},
                    Invalid{"a body without padding", "000400010000000000000009"},
                    Invalid{"a body of another id", "000400010000000003000008"},
                    Invalid{"a body with a name", "000400010000000080000008"}));

TEST(MessageHeader, IsBigEndian) {
    const Bytes bytes = from_hex("000501021c60effc");
    const bus::message_header header = bus::decode_header(bytes.data());
    EXPECT_EQ(header.type, 5);
    EXPECT_EQ(header.seq, 0x0102);
    EXPECT_EQ(header.peer, 0x1c60effcU);
}

class SentMessage : public testing::Test {
protected:
    SentMessage() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), 0);
        body.text(2, "svc");
    }
    ~SentMessage() override {
        close(m_ends[0]);
        close(m_ends[1]);
    }

    std::string sent_from(size_t offset) {
        const ssize_t taken = bus::send_message_part(m_ends[0], header, body.head(), offset);
        EXPECT_GE(taken, 0);
        Bytes bytes(static_cast<size_t>(taken));
        EXPECT_EQ(recv(m_ends[1], bytes.data(), bytes.size(), 0), taken);
        return to_hex(bytes);
    }

    std::string copied_from(size_t offset) {
        Bytes bytes(whole.size() / 2 - offset);
        bus::copy_message_part(bytes.data(), header, body.head(), offset);
        return to_hex(bytes);
    }

    const bus::message_header header = {4, 0x0102, 0x03040506};
    Body body;
    const std::string whole = "0004010203040506"
                              "0000000c0200000873766300";
    int m_ends[2];
};

TEST_F(SentMessage, IsHeaderAndBodyWithoutItsFirstBytes) {
    for (size_t offset = 0; offset < whole.size() / 2; offset++) {
        EXPECT_EQ(sent_from(offset), whole.substr(2 * offset));
        EXPECT_EQ(copied_from(offset), whole.substr(2 * offset));
    }
}

TEST_F(SentMessage, DoesNotBlockOnAFullSocket) {
    Body large;
    large.bytes(7, Bytes(100000, 1));
    ssize_t taken = 0;
    do {
        taken = bus::send_message_part(m_ends[0], header, large.head(), 0);
    } while (taken > 0);
    EXPECT_EQ(taken, 0);
}

TEST_F(SentMessage, FailsOnABrokenConnectionWithoutASignal) {
    shutdown(m_ends[1], SHUT_RDWR);
    EXPECT_EQ(bus::send_message_part(m_ends[0], header, body.head(), 0), -1);
}

TEST(Message, HandsItsMemoryOverWhenMoved) {
    bus::message first;
    first.memory = malloc(16);
    void* const memory = first.memory;
    bus::message second = std::move(first);
    EXPECT_EQ(second.memory, memory);
    bus::message third;
    third.memory = malloc(16);
    third = std::move(second);
    EXPECT_EQ(third.memory, memory);
    EXPECT_EQ(first.memory, nullptr);  // NOLINT(bugprone-use-after-move): what a move leaves
    EXPECT_EQ(second.memory, nullptr); // NOLINT(bugprone-use-after-move)
}

} // namespace
