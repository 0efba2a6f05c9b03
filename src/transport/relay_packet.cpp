#include "transport/relay_packet.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "core/block.h"
#include "core/log.h"
#include "core/mutex_guard.h"
#include "core/result.h"
#include "transport/cloud_socket.h"
#include "transport/packet_header.h"

namespace {

// The body goes in buckets at fixed offsets; a bucket that a read error left short is kept as it
// is, zero-filled: the connection's next read meets the error again.
int _recv_body(cloud_socket_t* socket, uint8_t* body, uint32_t dataLen, int64_t timeout) {
    constexpr char NAME[] = "cloud_socket_recv";
    size_t bucketCnt = dataLen / CRC_DATA_BUF_SIZE + (dataLen % CRC_DATA_BUF_SIZE != 0);
    LOG_INFO_AS(NAME, "[CRC:] Start read. bucketSize %d, bucketCnt %d",
                static_cast<int>(CRC_DATA_BUF_SIZE), static_cast<int>(bucketCnt));
    for (size_t done = 0; done < dataLen; done += CRC_DATA_BUF_SIZE) {
        size_t size = std::min(dataLen - done, CRC_DATA_BUF_SIZE);
        int count = cloud_socket_recv_buf(socket, body + done, size, timeout);
        if (count < 0) {
            LOG_ERROR_AS(NAME, "[CRC:] socket recv error, result:%d", count);
            return CLOUD_RECV_ERROR;
        }
        if (count == 0) {
            LOG_INFO_AS(NAME, "[CRC:] socket closed by peer");
            return CLOUD_UNREACHABLE;
        }
    }
    return CLOUD_OK;
}

} // namespace

int cloud_socket_send(cloud_socket_t* socket, const void* buf, size_t length) {
    ENSURE(NULL != socket && NULL != buf, CLOUD_BAD_ARGUMENT);
    packet_header_dump(buf);
    mutex_guard guard(&socket->mutex);
    int result = cloud_socket_send_buf(socket, buf, length);
    if (result != 0) {
        LOG_ERROR("[CRC:] socket send error, result:%d", result);
    }
    return result;
}

int cloud_socket_recv(cloud_socket_t* socket, uint8_t** buf, size_t* length, int64_t timeout) {
    ENSURE(NULL != socket, CLOUD_BAD_ARGUMENT);
    ENSURE(NULL != buf, CLOUD_BAD_ARGUMENT);
    mutex_guard guard(&socket->mutex);
    uint8_t bytes[PACKET_HEADER_SIZE] = {};
    int count = cloud_socket_recv_buf(socket, bytes, sizeof bytes, timeout);
    if (count < 0) {
        LOG_ERROR("[CRC:] socket recv error, result:%d", count);
        return CLOUD_RECV_ERROR;
    }
    if (count == 0) {
        LOG_INFO("[CRC:] socket closed by peer");
        return CLOUD_UNREACHABLE;
    }
    packet_header_dump(bytes);
    packet_header_t header = packet_header_read(bytes);
    if (header.magic != PACKET_MAGIC) {
        LOG_ERROR("[CRC:] Magic number(pkt Header 0x%04X) err.", header.magic);
        return CLOUD_BAD_MAGIC;
    }

    block_ptr packet(packet_allocate(header.dataLen));
    if (packet == nullptr) {
        LOG_ERROR("[CRC:] malloc error");
        return CLOUD_NO_MEMORY;
    }
    memcpy(packet.get(), bytes, sizeof bytes);
    int result = _recv_body(socket, packet.get() + PACKET_HEADER_SIZE, header.dataLen, timeout);
    if (result != CLOUD_OK) {
        return result;
    }
    if (header.dataLen == 0) {
        LOG_INFO("[CRC:] Data entity length is zero.");
    }
    *buf = packet.release();
    *length = PACKET_HEADER_SIZE + size_t{header.dataLen};
    LOG_INFO("[CRC:] Read socket end. dataLen is %d.", static_cast<int>(header.dataLen));
    return CLOUD_OK;
}

int cloud_socket_recv_pkt_hdr(cloud_socket_t* socket, uint8_t** pPktHdr, size_t* length,
                              int64_t timeout) {
    ENSURE(NULL != socket, CLOUD_BAD_ARGUMENT);
    ENSURE(NULL != pPktHdr, CLOUD_BAD_ARGUMENT);
    block_ptr header(static_cast<uint8_t*>(malloc(PACKET_HEADER_SIZE)));
    if (header == nullptr) {
        LOG_ERROR("[CRC:] malloc error");
        return CLOUD_NO_MEMORY;
    }
    mutex_guard guard(&socket->mutex);
    memset(header.get(), 0, PACKET_HEADER_SIZE);
    int count = cloud_socket_recv_buf(socket, header.get(), PACKET_HEADER_SIZE, timeout);
    if (count < 0) {
        LOG_ERROR("[CRC:] socket recv error, result:%d", count);
        return CLOUD_RECV_ERROR;
    }
    if (count == 0) {
        LOG_INFO("[CRC:] socket closed by peer");
        return CLOUD_UNREACHABLE;
    }
    packet_header_dump(header.get());
    *pPktHdr = header.release();
    *length = PACKET_HEADER_SIZE;
    return CLOUD_OK;
}
