#include "broker/out_queue.h"

#include <sys/socket.h>
#include <sys/uio.h>

namespace bus {

namespace {

constexpr size_t queue_bytes_max = 1 << 20;
constexpr size_t chunks_a_call = 32; // enough to fill a socket buffer with one system call

struct chunk {
    list_head list;
    size_t size;
    size_t sent;
    uint8_t bytes[];
};

void drop(chunk* done) {
    list_del(&done->list);
    free(done);
}

void consume(out_queue& out, size_t sent) {
    out.bytes -= sent;
    while (sent > 0) {
        chunk* first = list_first_entry(&out.chunks, chunk, list);
        const size_t left = first->size - first->sent;
        if (sent < left) {
            first->sent += sent;
            return;
        }
        sent -= left;
        drop(first);
    }
}

ssize_t send_first(const out_queue& out, int fd) {
    iovec parts[chunks_a_call];
    size_t count = 0;
    chunk* next;
    list_for_each_entry(next, &out.chunks, list) {
        parts[count++] = {next->bytes + next->sent, next->size - next->sent};
        if (count == chunks_a_call) {
            break;
        }
    }
    msghdr socket_message = {};
    socket_message.msg_iov = parts;
    socket_message.msg_iovlen = count;
    return sendmsg(fd, &socket_message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

} // namespace

void out_queue_init(out_queue& out) {
    INIT_LIST_HEAD(&out.chunks);
    out.bytes = 0;
}

void out_queue_free(out_queue& out) {
    consume(out, out.bytes);
}

bool out_queue_push(out_queue& out, const message_header& header, const blob_attr* body,
                    size_t sent) {
    const size_t size = header_bytes + blob_raw_len(body) - sent;
    if (sent == 0 && out.bytes > 0 && out.bytes + size > queue_bytes_max) {
        return false;
    }
    chunk* last = static_cast<chunk*>(malloc(sizeof(chunk) + size));
    if (!last) {
        return false;
    }
    last->size = size;
    last->sent = 0;
    copy_message_part(last->bytes, header, body, sent);
    list_add_tail(&last->list, &out.chunks);
    out.bytes += size;
    return true;
}

bool out_queue_flush(out_queue& out, int fd) {
    while (out.bytes > 0) {
        const ssize_t sent = send_first(out, fd);
        if (sent >= 0) {
            consume(out, static_cast<size_t>(sent));
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return true;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace bus
