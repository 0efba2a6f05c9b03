// The client library, with a broker that says anything.
//
// Input: the client's verbs, a text behind its length in 16 bits, one byte a verb; then steps of
// bus_script.h, what the broker sends after its hello. Of their operation only bit 2 counts. A step
// comes when the client waits for something; behind the last one comes the connection's end.

#include <deque>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bus_script.h"
#include "libubus.h"
#include "wire/attributes.h"

namespace {

constexpr size_t verbs_max = 16;
constexpr size_t steps_max = 100;
constexpr int send_buffer = 1 << 20; // for all that the client may send: nobody reads it meanwhile

std::deque<bus_bytes> broker_steps;
int broker_end = -1;

void broker_send(const bus_bytes& bytes) {
    (void)send(broker_end, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void broker_goes_on() {
    if (broker_steps.empty()) {
        shutdown(broker_end, SHUT_WR);
        return;
    }
    broker_send(broker_steps.front());
    broker_steps.pop_front();
}

} // namespace

// In the place of libubox's: every connection is to the same broker.
extern "C" int usock(int /*type*/, const char* /*host*/, const char* /*service*/) {
    const bus_connection connection;
    if (broker_end >= 0) {
        close(broker_end);
    }
    broker_end = connection.ends[0];
    setsockopt(connection.ends[1], SOL_SOCKET, SO_SNDBUFFORCE, &send_buffer, sizeof(send_buffer));
    broker_send(bus_message(std::string_view("\0\0\0\0\0\4\1", 7))); // its hello
    return connection.ends[1];
}

// In the place of libc's, which the client library waits with.
extern "C" int poll(pollfd* fds, nfds_t /*count*/, int /*milliseconds*/) {
    if (fds->events & POLLIN) {
        broker_goes_on();
    }
    fds->revents = fds->events;
    return 1;
}

namespace {

int answer_at_once(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char* method,
                   blob_attr* msg) {
    REQUIRE(method && msg);
    (void)ubus_send_reply(ctx, req, msg);
    return UBUS_STATUS_OK;
}

int answer_later(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr*) {
    ubus_request_data deferred;
    ubus_defer_request(ctx, req, &deferred);
    ubus_complete_deferred_request(ctx, &deferred, UBUS_STATUS_NO_DATA);
    return UBUS_STATUS_UNKNOWN_ERROR;
}

const blobmsg_policy arguments[] = {{"address", BLOBMSG_TYPE_STRING}, {"port", BLOBMSG_TYPE_INT32}};

const ubus_method methods[] = {
    {"now", answer_at_once, 0, 0, arguments, ARRAY_SIZE(arguments)},
    {nullptr, answer_later, 0, 0, nullptr, 0},
};

// What the program of a client has.
struct program {
    ubus_context* ctx = nullptr;
    ubus_object_type type = {"type", 0, methods, ARRAY_SIZE(methods)};
    ubus_object object = {};
    ubus_event_handler listener = {};
    ubus_request request = {};
    bool waits = false; // the request above is under way
    uint32_t found = 1;

    program() {
        object.name = "object";
        object.type = &type;
        object.methods = methods;
        object.n_methods = ARRAY_SIZE(methods);
    }
};

void on_lookup(ubus_context*, ubus_object_data* found, void* priv) {
    REQUIRE(found->path);
    static_cast<program*>(priv)->found = found->id;
}

void on_event(ubus_context*, ubus_event_handler*, const char* type, blob_attr* msg) {
    REQUIRE(type && msg);
}

void on_data(ubus_request*, int, blob_attr* msg) {
    const blob_attr* field;
    size_t left;
    blobmsg_for_each_attr(field, msg, left) {
        REQUIRE(blobmsg_name(field));
    }
}

void on_complete(ubus_request* req, int) {
    static_cast<program*>(req->priv)->waits = false;
}

void on_lost(ubus_context*) {}

void invoke_async(program& self) {
    if (self.waits || ubus_invoke_async(self.ctx, self.found, "method", nullptr, &self.request)) {
        return;
    }
    self.waits = true;
    self.request.data_cb = on_data;
    self.request.complete_cb = on_complete;
    self.request.priv = &self;
    ubus_complete_request_async(self.ctx, &self.request);
}

void reconnect(program& self) {
    if (ubus_reconnect(self.ctx, "") != UBUS_STATUS_CONNECTION_FAILED) {
        ubus_add_uloop(self.ctx);
    }
}

void do_verb(program& self, unsigned verb) {
    switch (verb % 9) {
    case 0:
        (void)ubus_add_object(self.ctx, &self.object);
        break;
    case 1:
        (void)ubus_lookup(self.ctx, "*", on_lookup, &self);
        break;
    case 2:
        (void)ubus_invoke(self.ctx, self.found, "method", nullptr, on_data, nullptr, 0);
        break;
    case 3:
        invoke_async(self);
        break;
    case 4:
        (void)ubus_register_event_handler(self.ctx, &self.listener, "*");
        break;
    case 5:
        (void)ubus_remove_object(self.ctx, &self.object);
        break;
    case 6:
        (void)ubus_send_event(self.ctx, "event", nullptr);
        break;
    case 7:
        reconnect(self);
        break;
    default:
        broker_goes_on();
        uloop_run_timeout(0);
        break;
    }
}

// Every message that the client sent is a sound one.
void check_sent() {
    bus_bytes sent;
    bus_receive(broker_end, sent);
    for (size_t at = 0; at < sent.size();) {
        REQUIRE(sent.size() - at >= bus::prologue_bytes);
        const size_t length = bus::message_length(sent.data() + at);
        REQUIRE(length > 0 && length <= sent.size() - at);
        bus_bytes body(sent.begin() + static_cast<long>(at + bus::header_bytes),
                       sent.begin() + static_cast<long>(at + length));
        blob_attr* attrs[bus::attr_count];
        REQUIRE(bus::parse_attributes(reinterpret_cast<blob_attr*>(body.data()), attrs) ==
                bus::parse_result::ok);
        at += length;
    }
}

std::deque<bus_bytes> script_of(fuzz_input& input) {
    std::deque<bus_bytes> script;
    while (script.size() < steps_max && !input.is_empty()) {
        const unsigned operation = input.byte();
        const std::string_view text = input.text();
        script.push_back(operation & 4 ? bus_message(text) : bus_bytes(text.begin(), text.end()));
    }
    return script;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const std::string_view verbs = input.text();
    broker_steps = script_of(input);
    program self;
    self.listener.cb = on_event;
    self.ctx = ubus_connect("");
    REQUIRE(self.ctx);
    self.ctx->connection_lost = on_lost;
    ubus_add_uloop(self.ctx);
    for (const char verb : verbs.substr(0, verbs_max)) {
        do_verb(self, static_cast<uint8_t>(verb));
    }
    uloop_run_timeout(0);
    check_sent();
    ubus_free(self.ctx);
    uloop_done();
    close(broker_end);
    broker_end = -1;
    return 0;
}
