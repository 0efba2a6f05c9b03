#include "broker/client.h"

#include <grp.h>
#include <new>
#include <pwd.h>
#include <sys/socket.h>

#include "broker/call.h"
#include "broker/lookup.h"
#include "broker/object.h"
#include "broker/request.h"

namespace bus {

namespace {

constexpr unsigned read_only = ULOOP_READ | ULOOP_BLOCKING; // the socket is non-blocking already
constexpr unsigned read_and_write = read_only | ULOOP_WRITE;

char* text_of(const char* name, unsigned number) {
    char* text = nullptr;
    if (name) {
        return strdup(name);
    }
    return asprintf(&text, "%u", number) < 0 ? nullptr : text;
}

bool identify(client& self) {
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (getsockopt(self.sock.fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0) {
        return false;
    }
    const passwd* user = getpwuid(peer.uid);
    self.user = text_of(user ? user->pw_name : nullptr, peer.uid);
    const group* own = getgrgid(peer.gid);
    self.group = text_of(own ? own->gr_name : nullptr, peer.gid);
    self.privileged = peer.uid == 0 || peer.uid == self.bus->uid;
    return self.user && self.group;
}

void handle_buffered(client& self) {
    while (!self.doomed) {
        message received;
        switch (reader_take(self.in, received)) {
        case take_result::message:
            request_handle(self, received);
            break;
        case take_result::incomplete:
            return;
        case take_result::failed:
            client_doom(self);
            return;
        }
    }
}

void read_and_handle(client& self) {
    do {
        switch (reader_fill(self.in, self.sock.fd)) {
        case read_result::bytes:
            handle_buffered(self);
            break;
        case read_result::nothing:
            if (!self.sock.registered) {
                client_doom(self);
            }
            return;
        case read_result::closed:
            client_doom(self);
            return;
        }
        // A socket whose peer hung up was taken out of uloop: what it left is read to the end now.
    } while (!self.doomed && !self.sock.registered);
}

void turn_deaf(client& self) {
    self.deaf = true;
    out_queue_free(self.out);
    lookup_free_all(self);
}

void send_queued(client& self) {
    if (!out_queue_flush(self.out, self.sock.fd)) {
        turn_deaf(self);
    }
    if (self.out.bytes == 0) {
        uloop_fd_add(&self.sock, read_only);
        lookup_resume(self);
    }
}

void on_socket(uloop_fd* sock, unsigned events) {
    client& self = *container_of(sock, client, sock);
    if (events & ULOOP_WRITE && sock->registered) {
        send_queued(self);
    }
    if (!self.doomed) {
        read_and_handle(self);
    }
}

void on_reaper(uloop_timeout* reaper) {
    client_free(container_of(reaper, client, reaper));
}

bool greet(client& self) {
    blob_writer nothing;
    const message_header hello = {UBUS_MSG_HELLO, 0, self.id.value};
    return nothing.ready && client_send(self, hello, nothing.buf.head);
}

} // namespace

void client_accept(broker& bus, int fd) {
    void* memory = malloc(sizeof(client));
    if (!memory) {
        close(fd);
        return;
    }
    client* self = new (memory) client{};
    self->bus = &bus;
    self->sock.fd = fd;
    self->sock.cb = on_socket;
    self->reaper.cb = on_reaper;
    out_queue_init(self->out);
    INIT_LIST_HEAD(&self->objects);
    INIT_LIST_HEAD(&self->lookups);
    INIT_LIST_HEAD(&self->calls);
    if (!identify(*self) || !id_insert(bus.clients, self->id) || !greet(*self) ||
        uloop_fd_add(&self->sock, read_only) < 0) {
        client_free(self);
    }
}

bool client_send(client& self, const message_header& header, const blob_attr* body) {
    if (self.doomed || self.deaf) {
        return false;
    }
    size_t sent = 0;
    if (self.out.bytes == 0) {
        const ssize_t taken = send_message_part(self.sock.fd, header, body, 0);
        if (taken < 0) {
            self.deaf = true;
            return false;
        }
        sent = static_cast<size_t>(taken);
        if (sent == header_bytes + blob_raw_len(body)) {
            return true;
        }
    }
    if (!out_queue_push(self.out, header, body, sent)) {
        if (sent > 0) { // half a message cannot be taken back
            client_doom(self);
        }
        return false;
    }
    uloop_fd_add(&self.sock, read_and_write);
    return true;
}

void client_doom(client& self) {
    if (self.doomed) {
        return;
    }
    self.doomed = true;
    uloop_fd_delete(&self.sock);
    uloop_timeout_set(&self.reaper, 0);
}

void client_free(client* self) {
    self->doomed = true;
    uloop_timeout_cancel(&self->reaper);
    uloop_fd_delete(&self->sock);
    if (self->id.value != 0) {
        avl_delete(&self->bus->clients, &self->id.avl);
    }
    object_free_all(*self);
    call_forget_caller(*self);
    lookup_free_all(*self);
    out_queue_free(self->out);
    reader_reset(self->in);
    close(self->sock.fd);
    free(self->user);
    free(self->group);
    free(self);
}

} // namespace bus
