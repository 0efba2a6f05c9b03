// The broker with up to three clients, which send it anything and read its answers or not.
//
// Input: steps of bus_script.h. The operation's bits:
//     0-1  which client; it connects with its first step; 3 is the first one, too
//     2    the text is a message without its lengths; else it is bytes of the stream
//     3    the client does not read afterwards
//     4    the client leaves afterwards
//     5    the client is one of another user from here on

#include <grp.h>
#include <pwd.h>
#include <sys/random.h>

#include "broker/broker.h"
#include "broker/client.h"
#include "bus_script.h"

// The broker's ids, random otherwise: an input can name them, and does the same each time. Clients
// have the first ones, then come objects and types in their order.
static uint32_t next_id;

extern "C" ssize_t getrandom(void* buffer, size_t size, unsigned /*flags*/) {
    const uint32_t id = next_id++;
    REQUIRE(size == sizeof(id));
    memcpy(buffer, &id, size);
    return static_cast<ssize_t>(size);
}

// A client's user and group, without reading the system's files for each of them.
extern "C" passwd* getpwuid(uid_t /*user*/) {
    static char name[] = "user";
    static passwd entry = {};
    entry.pw_name = name;
    return &entry;
}

extern "C" group* getgrgid(gid_t /*group*/) {
    return nullptr; // has a number only
}

namespace {

constexpr size_t clients_count = 3;
constexpr size_t steps_max = 200;
constexpr int small_buffer = 1; // the kernel takes its least size instead
constexpr int turns_to_end = 20;

bus::broker broker;

struct peer {
    uint32_t id;
    int fd = -1; // -1: it did not connect, or left
    bool left = false;
    bus_bytes received = {};
};

void take_turn() {
    uloop_run_timeout(0);
}

void connect_peer(peer& self) {
    const bus_connection connection;
    setsockopt(connection.ends[1], SOL_SOCKET, SO_SNDBUF, &small_buffer, sizeof(small_buffer));
    self.fd = connection.ends[0];
    const uint32_t next_object = next_id;
    next_id = self.id;
    bus::client_accept(broker, connection.ends[1]);
    next_id = next_object;
}

void leave(peer& self) {
    close(self.fd);
    self.fd = -1;
    self.left = true;
}

void lose_privileges(const peer& self) {
    bus::id_node* node = bus::id_find(broker.clients, self.id);
    if (node) {
        container_of(node, bus::client, id)->privileged = false;
    }
}

void take_step(peer& self, unsigned operation, std::string_view text) {
    if (operation & 4) {
        const bus_bytes message = bus_message(text);
        (void)send(self.fd, message.data(), message.size(), MSG_NOSIGNAL);
    } else {
        (void)send(self.fd, text.data(), text.size(), MSG_NOSIGNAL);
    }
    take_turn();
    if (!(operation & 8)) {
        bus_receive(self.fd, self.received);
    }
    if (operation & 16) {
        leave(self);
        take_turn();
    }
}

// Every message that the broker sent is a sound one; the last may be cut by the connection's end.
void check_received(const bus_bytes& received) {
    size_t at = 0;
    while (received.size() - at >= bus::prologue_bytes) {
        const size_t length = bus::message_length(received.data() + at);
        REQUIRE(length > 0);
        if (length > received.size() - at) {
            return;
        }
        const bus_bytes body(received.begin() + static_cast<long>(at + bus::header_bytes),
                             received.begin() + static_cast<long>(at + length));
        blob_attr* attrs[bus::attr_count];
        blob_attr* head = reinterpret_cast<blob_attr*>(const_cast<uint8_t*>(body.data()));
        REQUIRE(bus::parse_attributes(head, attrs) != bus::parse_result::malformed);
        REQUIRE(at > 0 || bus::decode_header(received.data()).type == UBUS_MSG_HELLO);
        at += length;
    }
}

void end(peer (&peers)[clients_count]) {
    bool progress = true;
    while (progress) {
        progress = false;
        for (peer& each : peers) {
            progress = (each.fd >= 0 && bus_receive(each.fd, each.received)) || progress;
        }
        take_turn();
    }
    for (peer& each : peers) {
        check_received(each.received);
        if (each.fd >= 0) {
            leave(each);
        }
    }
    for (int i = 0; i < turns_to_end && !avl_is_empty(&broker.clients); i++) {
        take_turn();
    }
    // Nothing outlives the clients.
    REQUIRE(avl_is_empty(&broker.clients));
    REQUIRE(avl_is_empty(&broker.objects));
    REQUIRE(avl_is_empty(&broker.paths));
    REQUIRE(avl_is_empty(&broker.types));
    REQUIRE(avl_is_empty(&broker.calls));
    REQUIRE(list_empty(&broker.watches));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    uloop_init();
    const std::string path = "/tmp/fuzz_bus_broker." + std::to_string(getpid());
    REQUIRE(bus::broker_open(broker, path.c_str()));
    unlink(path.c_str()); // its clients are made here
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    constexpr uint32_t first_id = bus::reserved_ids + 1;
    next_id = first_id + clients_count;
    broker.event = 0;
    peer peers[clients_count] = {{first_id}, {first_id + 1}, {first_id + 2}};
    for (size_t i = 0; i < steps_max && !input.is_empty(); i++) {
        const unsigned operation = input.byte();
        peer& self = peers[operation % 4 % clients_count];
        const std::string_view text = input.text();
        if (self.left) {
            continue;
        }
        if (self.fd < 0) {
            connect_peer(self);
        }
        if (operation & 32) {
            lose_privileges(self);
        }
        take_step(self, operation, text);
    }
    end(peers);
    return 0;
}
