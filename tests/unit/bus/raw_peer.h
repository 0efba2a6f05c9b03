// One end of a ubus connection that sends and receives bytes as it likes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "libubus.h"

using Bytes = std::vector<uint8_t>;

Bytes from_hex(const std::string& text);
std::string to_hex(const Bytes& bytes);

// Builds a message body; attribute ids as numbers of the protocol.
class Body {
public:
    Body();
    ~Body();
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;

    Body& number(int id, uint32_t value);
    Body& flag(int id, bool value);
    Body& text(int id, const std::string& value);
    Body& bytes(int id, const Bytes& value);
    Body& table(int id, const std::string& json); // blobmsg fields

    Bytes encoded() const;
    blob_attr* head() { return m_buf.head; }

private:
    blob_buf m_buf = {};
};

Bytes encode(int type, uint16_t seq, uint32_t peer, const Bytes& body);

// A received message, its attributes by id.
struct Received {
    int type;
    uint16_t seq;
    uint32_t peer;
    std::map<int, Bytes> attributes;

    uint32_t number(int id) const;
    std::string text(int id) const;
    int32_t status() const { return static_cast<int32_t>(number(1)); }
};

class RawPeer {
public:
    explicit RawPeer(const char* path); // connects
    explicit RawPeer(int fd) : m_fd(fd) {}
    ~RawPeer();
    RawPeer(RawPeer&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    RawPeer& operator=(RawPeer&&) = delete;

    int fd() const { return m_fd; }
    void send(const Bytes& bytes);
    void close();

    // Exactly so many bytes; fewer when the other side closed or patience is over.
    Bytes read(size_t count);

    // The next message; nothing when the other side closed or patience is over.
    std::optional<Received> receive();

    // Sends a request; receives all of its answer, the status last.
    std::vector<Received> ask(int type, const Body& body, uint32_t peer = 0);
    int32_t ask_status(int type, const Body& body, uint32_t peer = 0);

    // Whether the other side closes the connection, whatever it sends before.
    bool is_closed_by_peer();

    uint32_t greeted(); // receives HELLO; the client id

private:
    int m_fd;
    uint16_t m_seq = 0;
};
