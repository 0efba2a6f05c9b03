#include "bus.h"

#include <csignal>
#include <cstring>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

#include "log.h"

namespace {

constexpr int RECONNECT_MS = 1000;
constexpr int CALL_TIMEOUT_MS = 15000; // a restart takes the daemon three seconds
constexpr int PROCD_TIMEOUT_MS = 3000; // procd answers at once, or is not well itself
constexpr char ADD_EVENT[] = "ubus.object.add";
constexpr char REMOVE_EVENT[] = "ubus.object.remove";

const bus_listener* listener = nullptr;
ubus_context* context = nullptr; // null before the first connection
uint32_t daemon_id = 0;          // of the daemon's object; 0: not there

// A call of the daemon. One is out while `sent`.
ubus_request request = {};
bool sent = false;
int call_status = 0;

// A buffer for one message, freed at the end of its scope.
struct message {
    blob_buf buffer = {};
    bool ready; // false without memory: nothing may be written then
    message() : ready(blob_buf_init(&buffer, 0) == 0) {}
    ~message() { blob_buf_free(&buffer); }
    message(const message&) = delete;
    message& operator=(const message&) = delete;
};

// --- our object ---

int handle_status(ubus_context* ctx, ubus_object* /*object*/, ubus_request_data* asked,
                  const char* /*method*/, blob_attr* /*arguments*/) {
    supervision_report report = listener->on_status();
    message answer;
    if (!answer.ready) {
        return UBUS_STATUS_NO_MEMORY;
    }
    blobmsg_add_string(&answer.buffer, "state", supervision_state_name(report.state));
    blobmsg_add_string(&answer.buffer, "server", report.toward.text);
    blobmsg_add_u32(&answer.buffer, "since", static_cast<uint32_t>(report.since_ms / 1000));
    blobmsg_add_u32(&answer.buffer, "attempts", report.attempts);
    blobmsg_add_u32(&answer.buffer, "next_try_ms", static_cast<uint32_t>(report.next_try_ms));
    blobmsg_add_string(&answer.buffer, "last_reason", report.reason);
    return ubus_send_reply(ctx, asked, answer.buffer.head);
}

constexpr blobmsg_policy connect_policy[] = {{"interface", BLOBMSG_TYPE_STRING}};

int handle_connect(ubus_context* /*ctx*/, ubus_object* /*object*/, ubus_request_data* /*asked*/,
                   const char* /*method*/, blob_attr* arguments) {
    blob_attr* interface = nullptr;
    blobmsg_parse(connect_policy, 1, &interface, blob_data(arguments), blob_len(arguments));
    bool allowed =
        listener->on_connect(interface == nullptr ? nullptr : blobmsg_get_string(interface));
    return allowed ? UBUS_STATUS_OK : UBUS_STATUS_NOT_SUPPORTED;
}

int handle_disconnect(ubus_context* /*ctx*/, ubus_object* /*object*/, ubus_request_data* /*asked*/,
                      const char* /*method*/, blob_attr* /*arguments*/) {
    listener->on_disconnect();
    return UBUS_STATUS_OK;
}

int handle_reload(ubus_context* /*ctx*/, ubus_object* /*object*/, ubus_request_data* /*asked*/,
                  const char* /*method*/, blob_attr* /*arguments*/) {
    listener->on_reload();
    return UBUS_STATUS_OK;
}

const ubus_method methods[] = {
    UBUS_METHOD_NOARG("status", handle_status),
    UBUS_METHOD("connect", handle_connect, connect_policy),
    UBUS_METHOD_NOARG("disconnect", handle_disconnect),
    UBUS_METHOD_NOARG("reload", handle_reload),
};

ubus_object_type own_type = UBUS_OBJECT_TYPE("cloud_relay", methods);

ubus_object make_own_object() {
    ubus_object object = {};
    object.name = "cloud_relay";
    object.type = &own_type;
    object.methods = methods;
    object.n_methods = ARRAY_SIZE(methods);
    return object;
}

ubus_object own_object = make_own_object();

// --- the daemon's object ---

void tell_presence() {
    listener->on_presence(daemon_id != 0 ? presence::there : presence::missing);
}

// False when the bus gave no answer: a daemon that is there must not be taken for missing, as a
// missing one is restarted.
bool look_up_daemon() {
    uint32_t id = 0;
    int status = ubus_lookup_id(context, DAEMON_OBJECT, &id);
    if (status != UBUS_STATUS_OK && status != UBUS_STATUS_NOT_FOUND) {
        return false;
    }
    daemon_id = status == UBUS_STATUS_OK ? id : 0;
    tell_presence();
    return true;
}

enum event_field { EVENT_ID, EVENT_PATH, EVENT_FIELD_COUNT };

constexpr blobmsg_policy event_policy[] = {
    {"id", BLOBMSG_TYPE_INT32},
    {"path", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(event_policy) == EVENT_FIELD_COUNT);

// An object came or went. The events carry its id, so that the end of an old object does not hide
// a new one of the same name.
void on_object_event(ubus_context* /*ctx*/, ubus_event_handler* /*handler*/, const char* type,
                     blob_attr* arguments) {
    blob_attr* fields[EVENT_FIELD_COUNT] = {};
    blobmsg_parse(event_policy, EVENT_FIELD_COUNT, fields, blob_data(arguments),
                  blob_len(arguments));
    if (fields[EVENT_ID] == nullptr || fields[EVENT_PATH] == nullptr ||
        strcmp(blobmsg_get_string(fields[EVENT_PATH]), DAEMON_OBJECT) != 0) {
        return;
    }
    uint32_t id = blobmsg_get_u32(fields[EVENT_ID]);
    if (strcmp(type, ADD_EVENT) == 0) {
        daemon_id = id;
    } else if (id == daemon_id) {
        daemon_id = 0;
    }
    tell_presence();
}

ubus_event_handler object_events = {};

// --- the connection ---

void retry_connection(uloop_timeout* timer);

uloop_timeout make_timer(uloop_timeout_handler callback) {
    uloop_timeout timer = {};
    timer.cb = callback;
    return timer;
}

uloop_timeout connection_timer = make_timer(retry_connection);

// What a new connection does not bring along by itself.
bool set_up_connection() {
    ubus_add_uloop(context);
    return context->sock.registered &&
           ubus_register_event_handler(context, &object_events, ADD_EVENT) == UBUS_STATUS_OK &&
           ubus_register_event_handler(context, &object_events, REMOVE_EVENT) == UBUS_STATUS_OK;
}

void on_connection_lost(ubus_context* /*ctx*/) {
    daemon_id = 0;
    listener->on_presence(presence::no_bus);
    uloop_timeout_set(&connection_timer, RECONNECT_MS);
}

// Said once, for it is tried again every second.
void log_refusal(int status) {
    static int logged = UBUS_STATUS_OK;
    if (status != logged) {
        log_error("the bus refuses the object '%s': %s", own_object.name, ubus_strerror(status));
        logged = status;
    }
}

bool connect_first() {
    context = ubus_connect(nullptr);
    if (context == nullptr) {
        return false;
    }
    context->connection_lost = on_connection_lost;
    object_events.cb = on_object_event;
    int status = ubus_add_object(context, &own_object);
    if (status != UBUS_STATUS_OK) {
        log_refusal(status);
        ubus_free(context);
        context = nullptr;
        return false;
    }
    return true;
}

bool connect_again() {
    int status = ubus_reconnect(context, nullptr);
    if (status != UBUS_STATUS_OK && status != UBUS_STATUS_CONNECTION_FAILED) {
        log_refusal(status);
    }
    return status == UBUS_STATUS_OK;
}

void retry_connection(uloop_timeout* /*timer*/) {
    bool connected = context == nullptr ? connect_first() : connect_again();
    if (!connected || !set_up_connection() || !look_up_daemon()) {
        uloop_timeout_set(&connection_timer, RECONNECT_MS);
    }
}

// --- calls ---

void tell_call_ended(uloop_timeout* timer);
void on_call_timeout(uloop_timeout* timer);

// The listener is told from uloop, however early the call ended.
uloop_timeout ended_timer = make_timer(tell_call_ended);
uloop_timeout timeout_timer = make_timer(on_call_timeout);

void end_call(int status) {
    sent = false;
    call_status = status;
    uloop_timeout_cancel(&timeout_timer);
    uloop_timeout_set(&ended_timer, 0);
}

void tell_call_ended(uloop_timeout* /*timer*/) {
    listener->on_call_ended(call_status);
}

void on_call_timeout(uloop_timeout* /*timer*/) {
    ubus_abort_request(context, &request);
    end_call(UBUS_STATUS_TIMEOUT);
}

void on_answer(ubus_request* /*answered*/, int status) {
    end_call(status);
}

void call_daemon(const char* method, blob_attr* arguments) {
    if (daemon_id == 0) {
        end_call(UBUS_STATUS_NOT_FOUND);
        return;
    }
    int status = ubus_invoke_async(context, daemon_id, method, arguments, &request);
    if (status != UBUS_STATUS_OK) {
        end_call(status);
        return;
    }
    sent = true;
    request.complete_cb = on_answer;
    uloop_timeout_set(&timeout_timer, CALL_TIMEOUT_MS);
    ubus_complete_request_async(context, &request);
}

} // namespace

void bus_open(const bus_listener* told) {
    listener = told;
    retry_connection(&connection_timer);
}

void bus_close() {
    uloop_timeout_cancel(&connection_timer);
    uloop_timeout_cancel(&ended_timer);
    uloop_timeout_cancel(&timeout_timer);
    if (sent) {
        ubus_abort_request(context, &request);
    }
    sent = false;
    ubus_free(context);
    context = nullptr;
    daemon_id = 0;
}

void bus_reload(const server& toward) {
    message arguments;
    if (!arguments.ready) {
        end_call(UBUS_STATUS_NO_MEMORY);
        return;
    }
    blobmsg_add_string(&arguments.buffer, "address", toward.host);
    blobmsg_add_u32(&arguments.buffer, "port", toward.port);
    call_daemon("reload", arguments.buffer.head);
}

void bus_stop() {
    message arguments;
    if (!arguments.ready) {
        end_call(UBUS_STATUS_NO_MEMORY);
        return;
    }
    call_daemon("stop", arguments.buffer.head);
}

void bus_restart_daemon() {
    uint32_t procd = 0;
    if (context == nullptr || ubus_lookup_id(context, "service", &procd) != UBUS_STATUS_OK) {
        log_error("no procd is on the bus that could restart %s", PROCD_INSTANCE);
        return;
    }
    message arguments;
    if (!arguments.ready) {
        log_error("procd cannot restart %s: %s", PROCD_INSTANCE,
                  ubus_strerror(UBUS_STATUS_NO_MEMORY));
        return;
    }
    blobmsg_add_string(&arguments.buffer, "name", PROCD_SERVICE);
    blobmsg_add_string(&arguments.buffer, "instance", PROCD_INSTANCE);
    blobmsg_add_u32(&arguments.buffer, "signal", SIGKILL);
    int status = ubus_invoke(context, procd, "signal", arguments.buffer.head, nullptr, nullptr,
                             PROCD_TIMEOUT_MS);
    if (status == UBUS_STATUS_OK) {
        log_error("procd was asked to restart %s", PROCD_INSTANCE);
    } else {
        log_error("procd cannot restart %s: %s", PROCD_INSTANCE, ubus_strerror(status));
    }
}
