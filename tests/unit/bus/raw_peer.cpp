#include "raw_peer.h"

#include <cstring>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "deadline.h"
#include "wire/platform.h"

namespace {

constexpr size_t header_size = 8;

uint32_t big_endian(const uint8_t* at) {
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

void put_big_endian(Bytes& out, uint32_t value, int size) {
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(value >> shift));
    }
}

// Independent of the library's own parser, on purpose.
std::map<int, Bytes> attributes_of(const Bytes& body) {
    std::map<int, Bytes> attributes;
    size_t at = 4;
    while (at + 4 <= body.size()) {
        const uint32_t head = big_endian(&body[at]);
        const size_t length = head & 0xffffff;
        EXPECT_GE(length, 4u);
        EXPECT_LE(at + length, body.size());
        const auto first = body.begin() + static_cast<long>(at);
        attributes[static_cast<int>(head >> 24)] =
            Bytes(first + 4, first + static_cast<long>(length));
        for (size_t pad = at + length; pad % 4 != 0; pad++) {
            EXPECT_EQ(body[pad], 0) << "padding that is not zero";
        }
        at += (length + 3) & ~size_t{3};
    }
    return attributes;
}

} // namespace

Bytes from_hex(const std::string& text) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string to_hex(const Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    return text;
}

Body::Body() {
    blob_buf_init(&m_buf, 0);
}

Body::~Body() {
    blob_buf_free(&m_buf);
}

Body& Body::number(int id, uint32_t value) {
    blob_put_u32(&m_buf, id, value);
    return *this;
}

Body& Body::flag(int id, bool value) {
    blob_put_u8(&m_buf, id, value);
    return *this;
}

Body& Body::text(int id, const std::string& value) {
    blob_put_string(&m_buf, id, value.c_str());
    return *this;
}

Body& Body::bytes(int id, const Bytes& value) {
    blob_put(&m_buf, id, value.data(), static_cast<unsigned>(value.size()));
    return *this;
}

Body& Body::table(int id, const std::string& json) {
    void* nested = blob_nest_start(&m_buf, id);
    EXPECT_TRUE(blobmsg_add_json_from_string(&m_buf, json.c_str())) << json;
    blob_nest_end(&m_buf, nested);
    return *this;
}

Bytes Body::encoded() const {
    const uint8_t* first = reinterpret_cast<const uint8_t*>(m_buf.head);
    return Bytes(first, first + blob_raw_len(m_buf.head));
}

Bytes encode(int type, uint16_t seq, uint32_t peer, const Bytes& body) {
    Bytes out = {0, static_cast<uint8_t>(type)};
    put_big_endian(out, seq, 2);
    put_big_endian(out, peer, 4);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

uint32_t Received::number(int id) const {
    const auto found = attributes.find(id);
    return found != attributes.end() && found->second.size() == 4 ? big_endian(found->second.data())
                                                                  : 0;
}

std::string Received::text(int id) const {
    const auto found = attributes.find(id);
    return found == attributes.end() ? "" : reinterpret_cast<const char*>(found->second.data());
}

RawPeer::RawPeer(const char* path) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0)
        << strerror(errno);
}

RawPeer::~RawPeer() {
    close();
}

void RawPeer::close() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

void RawPeer::send(const Bytes& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t taken = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (taken <= 0) {
            return; // closed by the other side; the test sees that when it reads
        }
        sent += static_cast<size_t>(taken);
    }
}

Bytes RawPeer::read(size_t count) {
    Bytes bytes(count);
    size_t have = 0;
    while (have < count) {
        pollfd readable = {m_fd, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(PATIENCE.count())) <= 0) {
            break;
        }
        const ssize_t got = recv(m_fd, bytes.data() + have, count - have, 0);
        if (got <= 0) {
            break;
        }
        have += static_cast<size_t>(got);
    }
    bytes.resize(have);
    return bytes;
}

std::optional<Received> RawPeer::receive() {
    Bytes head = read(header_size + 4);
    if (head.size() < header_size + 4) {
        return std::nullopt;
    }
    EXPECT_EQ(head[0], 0) << "version";
    const size_t length = big_endian(&head[header_size]);
    Bytes body(head.begin() + header_size, head.end());
    const Bytes rest = read(length - 4);
    if (rest.size() < length - 4) {
        return std::nullopt;
    }
    body.insert(body.end(), rest.begin(), rest.end());
    return Received{head[1], static_cast<uint16_t>(head[2] << 8 | head[3]), big_endian(&head[4]),
                    attributes_of(body)};
}

std::vector<Received> RawPeer::ask(int type, const Body& body, uint32_t peer) {
    m_seq++;
    send(encode(type, m_seq, peer, body.encoded()));
    std::vector<Received> answer;
    while (std::optional<Received> message = receive()) {
        if (message->seq == m_seq && message->peer == peer) {
            answer.push_back(*message);
            if (message->type == UBUS_MSG_STATUS) {
                return answer;
            }
        }
    }
    ADD_FAILURE() << "no status for request of type " << type;
    return answer;
}

int32_t RawPeer::ask_status(int type, const Body& body, uint32_t peer) {
    const std::vector<Received> answer = ask(type, body, peer);
    return answer.empty() ? -1000 : answer.back().status();
}

bool RawPeer::is_closed_by_peer() {
    for (;;) {
        pollfd readable = {m_fd, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(PATIENCE.count())) <= 0) {
            return false;
        }
        uint8_t bytes[4096];
        if (recv(m_fd, bytes, sizeof(bytes), 0) <= 0) {
            return true;
        }
    }
}

uint32_t RawPeer::greeted() {
    const std::optional<Received> hello = receive();
    EXPECT_TRUE(hello && hello->type == UBUS_MSG_HELLO);
    return hello ? hello->peer : 0;
}
