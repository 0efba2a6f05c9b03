#include "control/ubus_control.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

#include "core/clock.h"
#include "core/log.h"
#include "task/task_controller.h"

namespace {

constexpr char UBUS_SOCKET_PATH[] = "/var/run/ubus.sock";
constexpr int RECONNECT_PAUSE_S = 2;

ubus_context* l_ubus_common_ctx = nullptr; // the process's one bus connection
int debugEnabled = 0;

enum reload_argument { RELOAD_ADDRESS, RELOAD_PORT, RELOAD_ARGUMENT_COUNT };

constexpr blobmsg_policy reload_policy[] = {
    {"address", BLOBMSG_TYPE_STRING},
    {"port", BLOBMSG_TYPE_INT32},
};
static_assert(sizeof reload_policy / sizeof reload_policy[0] == RELOAD_ARGUMENT_COUNT);

int reload_handle(ubus_context* /*context*/, ubus_object* /*object*/,
                  ubus_request_data* /*request*/, const char* /*method*/, blob_attr* msg) {
    blob_attr* arguments[RELOAD_ARGUMENT_COUNT] = {};
    blobmsg_parse(reload_policy, RELOAD_ARGUMENT_COUNT, arguments, blob_data(msg), blob_len(msg));
    if (arguments[RELOAD_ADDRESS] == nullptr || arguments[RELOAD_PORT] == nullptr) {
        LOG_ERROR("g_para is NULL.\n");
        return -1;
    }
    return cloudRelayClientReload(blobmsg_get_string(arguments[RELOAD_ADDRESS]),
                                  blobmsg_get_u32(arguments[RELOAD_PORT]));
}

int stop_handle(ubus_context* /*context*/, ubus_object* /*object*/, ubus_request_data* /*request*/,
                const char* /*method*/, blob_attr* /*msg*/) {
    return swCloudRelayClientTaskStop();
}

// Points standard output and standard error at `path`; a path that cannot be opened changes
// nothing. Descriptor 0 counts as a failure: then standard input was closed, and the daemon is not
// running as it is meant to.
void debugOutputRedirect(const char* path) {
    int fd = open(path, O_WRONLY);
    if (fd < 1) {
        return;
    }
    cloud_output_changed(fd); // before any line goes there
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);
    setvbuf(stderr, nullptr, _IONBF, 0);
    if (fd > STDERR_FILENO) {
        close(fd);
    }
    cloud_output_changed(STDOUT_FILENO);
    cloud_output_changed(STDERR_FILENO);
}

void _print(const char* text) {
    cloud_print(text, strlen(text));
}

// Both messages are printed while output goes to the console.
int dbg_handle(ubus_context* /*context*/, ubus_object* /*object*/, ubus_request_data* /*request*/,
               const char* /*method*/, blob_attr* /*msg*/) {
    if (debugEnabled == 0) {
        debugEnabled = 1;
        debugOutputRedirect("/dev/console");
        _print("Enable debug!\n");
    } else {
        debugEnabled = 0;
        _print("Disable debug!\n");
        debugOutputRedirect("/dev/null");
    }
    return 0;
}

const ubus_method cloud_relayc_methods[] = {
    UBUS_METHOD("reload", reload_handle, reload_policy),
    UBUS_METHOD_NOARG("stop", stop_handle),
    UBUS_METHOD_NOARG("dbg", dbg_handle),
};

ubus_object_type cloud_relayc_type = UBUS_OBJECT_TYPE("cloud_relayc_handle", cloud_relayc_methods);

ubus_object _make_object() {
    ubus_object object = {};
    object.name = "cloud_relayc";
    object.type = &cloud_relayc_type;
    object.methods = cloud_relayc_methods;
    object.n_methods = sizeof cloud_relayc_methods / sizeof cloud_relayc_methods[0];
    return object;
}

ubus_object cloud_relayc = _make_object();

void ubus_connection_lost(ubus_context* context);

void _reconnect(uloop_timeout* /*timer*/) {
    ubus_connection_lost(l_ubus_common_ctx);
}

uloop_timeout _make_timer(uloop_timeout_handler callback) {
    uloop_timeout timer = {};
    timer.cb = callback;
    return timer;
}

uloop_timeout reconnectTimer = _make_timer(_reconnect);

void _try_again_later() {
    LOG_ERROR_AS("ubus_connection_lost", "failed to reconnect, trying again in %d seconds\n",
                 RECONNECT_PAUSE_S);
    uloop_timeout_set(&reconnectTimer, RECONNECT_PAUSE_S * MS_PER_SECOND);
}

// Nobody would read from a socket that uloop has no room for: the bus is connected to anew.
void _watch_connection() {
    if (uloop_fd_add(&l_ubus_common_ctx->sock, ULOOP_READ | ULOOP_BLOCKING) < 0) {
        _try_again_later();
    }
}

// Called when the connection is lost, and by the timer until it is back.
void ubus_connection_lost(ubus_context* /*context*/) {
    if (l_ubus_common_ctx == nullptr) {
        LOG_ERROR("l_ubus_common_ctx is NULL\n");
        return;
    }
    if (ubus_reconnect(l_ubus_common_ctx, UBUS_SOCKET_PATH) != 0) {
        _try_again_later();
        return;
    }
    _watch_connection();
}

// uloop forgets, when it begins to run, that it was asked to end. So the signals that ask it wait
// until it runs.
void _set_end_blocked(bool blocked) {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    sigaddset(&end, SIGINT);
    pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &end, nullptr);
}

void _loop_runs(uloop_timeout* /*timer*/) {
    _set_end_blocked(false);
}

uloop_timeout loopRuns = _make_timer(_loop_runs);

int ubus_add_obj() {
    int result = ubus_add_object(l_ubus_common_ctx, &cloud_relayc);
    if (result != 0) {
        LOG_ERROR("add object(%s) failed ret:%d.\n", cloud_relayc.name, result);
        return -1;
    }
    return 0;
}

} // namespace

int ubus_init() {
    l_ubus_common_ctx = ubus_connect(UBUS_SOCKET_PATH);
    if (l_ubus_common_ctx == nullptr) {
        // The odd text is what this failure has always said.
        LOG_ERROR("static struct ubus_context *l_ubus_common_ctx = NULL;");
        return -1;
    }
    l_ubus_common_ctx->connection_lost = ubus_connection_lost;
    if (ubus_add_obj() != 0) {
        return -1;
    }
    _set_end_blocked(true);
    uloop_init();
    _watch_connection();
    uloop_timeout_set(&loopRuns, 0);
    uloop_run();
    uloop_done();
    ubus_free(l_ubus_common_ctx);
    l_ubus_common_ctx = nullptr;
    return 0;
}
