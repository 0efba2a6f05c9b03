#include "tool/command.h"

#include <limits.h>

#include "tool/deadline.h"
#include "tool/print.h"
#include "wire/platform.h"

namespace bus {

namespace {

// A table under construction.
struct table_writer {
    blob_buf buf = {};
    bool ready; // false without memory: nothing may be written then
    table_writer() : ready(blob_buf_init(&buf, 0) == 0) {}
    ~table_writer() { blob_buf_free(&buf); }
    table_writer(const table_writer&) = delete;
    table_writer& operator=(const table_writer&) = delete;
};

// The table that an optional argument holds as JSON. Returns a status.
int read_table(table_writer& table, const char* json) {
    if (!table.ready) {
        return UBUS_STATUS_NO_MEMORY;
    }
    return !json || blobmsg_add_json_from_string(&table.buf, json) ? UBUS_STATUS_OK
                                                                   : UBUS_STATUS_PARSE_ERROR;
}

// Tells of a failure. Returns the exit status.
int failed(int status) {
    if (status != UBUS_STATUS_OK) {
        fprintf(stderr, "Command failed: %s\n", ubus_strerror(status));
    }
    return status;
}

// list

void on_listed(ubus_context*, ubus_object_data* obj, void* priv) {
    print_object(*obj, static_cast<const tool_options*>(priv)->verbose);
}

int run_list(ubus_context* ctx, const tool_options& options, char** arguments) {
    return failed(ubus_lookup(ctx, arguments[0], on_listed, const_cast<tool_options*>(&options)));
}

// call

void on_answer(ubus_request* req, int, blob_attr* msg) {
    if (msg) {
        print_answer(msg, static_cast<const tool_options*>(req->priv)->simple);
    }
}

// To a terminal the short line will do. A log wants to know what was called, and scripts
// tell a method's own failure by its negative exit status.
int call_failed(char** arguments, int status) {
    if (status == UBUS_STATUS_OK || isatty(STDERR_FILENO)) {
        return failed(status);
    }
    const char* json = arguments[2];
    fprintf(stderr, "Command failed: ubus call %s %s%s%s (%s)\n", arguments[0], arguments[1],
            json ? " " : "", json ? json : "", ubus_strerror(status));
    return static_cast<int>(0U - static_cast<unsigned>(status));
}

int run_call(ubus_context* ctx, const tool_options& options, char** arguments) {
    table_writer table;
    int status = read_table(table, arguments[2]);
    if (status != UBUS_STATUS_OK) {
        return call_failed(arguments, status);
    }
    uint32_t id;
    status = ubus_lookup_id(ctx, arguments[0], &id);
    if (status != UBUS_STATUS_OK) {
        return failed(status);
    }
    deadline_set(0);
    return call_failed(arguments,
                       ubus_invoke(ctx, id, arguments[1], table.buf.head, on_answer,
                                   const_cast<tool_options*>(&options), options.timeout_ms));
}

// listen

void on_event(ubus_context*, ubus_event_handler*, const char* type, blob_attr* msg) {
    print_event(type, msg);
}

void on_time_up(uloop_timeout*) {
    uloop_end();
}

// Serves events until uloop ends. The timer ends it when that is wanted.
int run_uloop(ubus_context* ctx, uloop_timeout& timer, int timeout_ms) {
    timer.cb = on_time_up;
    if (timeout_ms > 0) {
        uloop_timeout_set(&timer, timeout_ms);
    }
    deadline_set(0);
    ubus_add_uloop(ctx);
    if (!ctx->sock.registered) { // the kernel refused to watch one more descriptor
        uloop_timeout_cancel(&timer);
        return UBUS_STATUS_SYSTEM_ERROR;
    }
    uloop_run();
    uloop_timeout_cancel(&timer);
    // eof is that of the last event alone, but a lost connection is always taken out of uloop.
    const bool lost = ctx->sock.eof || !ctx->sock.registered;
    return lost ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_OK;
}

int run_listen(ubus_context* ctx, const tool_options& options, char** arguments) {
    char all[] = "*";
    char* everything[] = {all, nullptr};
    ubus_event_handler listener = {};
    listener.cb = on_event;
    for (char** pattern = arguments[0] ? arguments : everything; *pattern; pattern++) {
        const int status = ubus_register_event_handler(ctx, &listener, *pattern);
        if (status != UBUS_STATUS_OK) {
            return failed(status);
        }
    }
    uloop_timeout timer = {};
    return failed(run_uloop(ctx, timer, options.timeout_given ? options.timeout_ms : 0));
}

// send

int run_send(ubus_context* ctx, const tool_options&, char** arguments) {
    table_writer table;
    const int status = read_table(table, arguments[1]);
    if (status != UBUS_STATUS_OK) {
        return failed(status);
    }
    return failed(ubus_send_event(ctx, arguments[0], table.buf.head));
}

// wait_for

struct wait {
    ubus_event_handler listener;
    char** missing; // paths, ended by a null
    uloop_timeout timer;
};

void found(wait& self, const char* path) {
    char** kept = self.missing;
    for (char** each = self.missing; *each; each++) {
        if (strcmp(*each, path) != 0) {
            *kept++ = *each;
        }
    }
    *kept = nullptr;
}

void on_present(ubus_context*, ubus_object_data* obj, void* priv) {
    found(*static_cast<wait*>(priv), obj->path);
}

void on_added(ubus_context*, ubus_event_handler* ev, const char*, blob_attr* msg) {
    wait& self = *container_of(ev, wait, listener);
    constexpr blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
    blob_attr* path;
    blobmsg_parse(&policy, 1, &path, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (!path) {
        return;
    }
    found(self, blobmsg_get_string(path));
    if (!self.missing[0]) {
        uloop_end();
    }
}

// Listens before it looks, so that nothing appears unseen in between.
int run_wait_for(ubus_context* ctx, const tool_options& options, char** arguments) {
    wait self = {};
    self.listener.cb = on_added;
    self.missing = arguments;
    int status = ubus_register_event_handler(ctx, &self.listener, "ubus.object.add");
    if (status == UBUS_STATUS_OK) {
        status = ubus_lookup(ctx, nullptr, on_present, &self);
    }
    if (status != UBUS_STATUS_OK || !self.missing[0]) {
        return failed(status);
    }
    status = run_uloop(ctx, self.timer, options.timeout_ms);
    const bool timed_out = status == UBUS_STATUS_OK && self.missing[0];
    return failed(timed_out ? UBUS_STATUS_TIMEOUT : status);
}

} // namespace

const command commands[command_count] = {
    {"list", "[path]", 0, 1, run_list},
    {"call", "path method [json]", 2, 3, run_call},
    {"listen", "[pattern...]", 0, INT_MAX, run_listen},
    {"send", "type [json]", 1, 2, run_send},
    {"wait_for", "object...", 1, INT_MAX, run_wait_for},
};

const command* command_find(const char* name, int arguments) {
    for (const command& each : commands) {
        if (strcmp(each.name, name) == 0) {
            const bool fits = arguments >= each.arguments_min && arguments <= each.arguments_max;
            return fits ? &each : nullptr;
        }
    }
    return nullptr;
}

} // namespace bus
