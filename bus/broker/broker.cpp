#include "broker/broker.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "broker/call.h"
#include "broker/client.h"

namespace bus {

namespace {

constexpr int relisten_ms = 500; // how long to leave callers waiting when descriptors ran out
constexpr int accepts_a_turn = 16;

bool complain(const char* path, const char* reason) {
    fprintf(stderr, "ubusd: %s: %s\n", path, reason);
    return false;
}

// Whether somebody serves the socket at `path`. A stale one refuses.
bool is_served(const char* path) {
    const int fd = usock(USOCK_UNIX | USOCK_NONBLOCK, path, nullptr);
    if (fd < 0) {
        return errno == EAGAIN; // so busy that its backlog is full
    }
    close(fd);
    return true;
}

// Makes room at `path`: nothing but a socket that nobody serves is removed.
bool clear_path(const char* path) {
    struct stat present;
    if (lstat(path, &present) < 0) {
        return errno == ENOENT || complain(path, strerror(errno));
    }
    if (!S_ISSOCK(present.st_mode)) {
        return complain(path, "exists and is no socket");
    }
    if (is_served(path)) {
        return complain(path, "another broker is running");
    }
    return unlink(path) == 0 || complain(path, strerror(errno));
}

// usock does not look whether the socket became one that does not block.
bool is_nonblocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_NONBLOCK) != 0;
}

int listen_at(const char* path) {
    const mode_t old_mask = umask(S_IXUSR | S_IXGRP | S_IXOTH); // everybody may connect
    const int fd = usock(USOCK_UNIX | USOCK_SERVER | USOCK_NONBLOCK, path, nullptr);
    umask(old_mask);
    return fd;
}

bool start_accepting(broker& self) {
    return uloop_fd_add(&self.listener, ULOOP_READ | ULOOP_BLOCKING) == 0;
}

void on_relisten(uloop_timeout* timer) {
    if (!start_accepting(*container_of(timer, broker, relisten))) {
        uloop_timeout_set(timer, relisten_ms);
    }
}

void on_listener(uloop_fd* listener, unsigned) {
    broker& self = *container_of(listener, broker, listener);
    for (int i = 0; i < accepts_a_turn; i++) {
        const int fd = accept4(listener->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            client_accept(self, fd);
            continue;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            // The caller stays in the backlog and the socket readable: do not spin on it.
            uloop_fd_delete(listener);
            uloop_timeout_set(&self.relisten, relisten_ms);
        }
        return;
    }
}

} // namespace

bool broker_open(broker& self, const char* path) {
    if (strlen(path) >= sizeof(sockaddr_un::sun_path)) {
        return complain(path, strerror(ENAMETOOLONG));
    }
    if (!clear_path(path)) {
        return false;
    }
    self = {};
    self.path = strdup(path);
    self.listener.fd = self.path ? listen_at(path) : -1;
    if (self.listener.fd < 0) {
        complain(path, strerror(errno));
        free(self.path);
        return false;
    }
    self.uid = geteuid();
    id_tree_init(self.clients);
    id_tree_init(self.objects);
    id_tree_init(self.types);
    avl_init(&self.paths, avl_strcmp, false, nullptr);
    call_tree_init(self.calls);
    INIT_LIST_HEAD(&self.watches);
    self.listener.cb = on_listener;
    self.relisten.cb = on_relisten;
    if (!is_nonblocking(self.listener.fd) || !start_accepting(self)) {
        complain(path, strerror(errno));
        broker_close(self);
        return false;
    }
    return true;
}

void broker_close(broker& self) {
    uloop_timeout_cancel(&self.relisten);
    uloop_fd_delete(&self.listener);
    close(self.listener.fd);
    id_node* node;
    while (!avl_is_empty(&self.clients)) {
        node = avl_first_element(&self.clients, node, avl);
        client_free(container_of(node, client, id));
    }
    unlink(self.path);
    free(self.path);
}

} // namespace bus
