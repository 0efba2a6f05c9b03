#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "support/packet.h"

// What both files of the message queue's tests share.

constexpr int NO_CLIENT = -1;
constexpr int32_t TIMEOUT_MS = 5000;
constexpr int HEARTBEAT = 2;
constexpr int WEB_TOKEN = 5;

// A packet without body in a block that the queue can take over.
inline uint8_t* packet_block(int type, int id) {
    std::string bytes = header_bytes(static_cast<uint16_t>(type), static_cast<uint16_t>(id), 0);
    auto* block = static_cast<uint8_t*>(malloc(bytes.size()));
    memcpy(block, bytes.data(), bytes.size());
    return block;
}
