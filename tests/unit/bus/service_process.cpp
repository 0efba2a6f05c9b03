#include "service_process.h"

#include <csignal>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The child shares uloop's descriptors and every socket with the test: none of them is its own.
void leave_the_tests_things(int kept) {
    uloop_done();
    for (int fd = STDERR_FILENO + 1; fd < 1024; fd++) {
        if (fd != kept) {
            close(fd);
        }
    }
}

// Not an exit: the test's uloop reaps every child that has ended, and the status would be lost.
[[noreturn]] void wait_to_be_killed() {
    for (;;) {
        pause();
    }
}

[[noreturn]] void serve(const char* socket, const std::function<void(ubus_context*)>& offer,
                        int ready) {
    leave_the_tests_things(ready);
    ubus_context* ctx = ubus_connect(socket);
    if (!ctx) {
        _exit(1);
    }
    offer(ctx);
    ubus_add_uloop(ctx);
    const char byte = 1;
    if (write(ready, &byte, 1) != 1) {
        _exit(1);
    }
    uloop_run();
    ubus_free(ctx);
    uloop_done();
    wait_to_be_killed();
}

int value_of(blob_attr* msg) {
    const blobmsg_policy policy = {"value", BLOBMSG_TYPE_INT32};
    blob_attr* value = nullptr;
    blobmsg_parse(&policy, 1, &value, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    return value ? static_cast<int>(blobmsg_get_u32(value)) : 0;
}

int echo(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr* msg) {
    return ubus_send_reply(ctx, req, msg);
}

int status(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr* msg) {
    return value_of(msg);
}

struct Later {
    uloop_timeout timer;
    ubus_context* ctx;
    ubus_request_data request;
    blob_attr* msg;
};

void answer_later(uloop_timeout* timer) {
    Later* later = container_of(timer, Later, timer);
    ubus_send_reply(later->ctx, &later->request, later->msg);
    ubus_complete_deferred_request(later->ctx, &later->request, value_of(later->msg));
    free(later->msg);
    delete later;
}

int late(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr* msg) {
    Later* later = new Later{};
    later->timer.cb = answer_later;
    later->ctx = ctx;
    later->msg = blob_memdup(msg);
    ubus_defer_request(ctx, req, &later->request);
    uloop_timeout_set(&later->timer, 1);
    return UBUS_STATUS_UNKNOWN_ERROR; // is not to be sent
}

int silent(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr*) {
    ubus_request_data forgotten;
    ubus_defer_request(ctx, req, &forgotten);
    return 0;
}

int hang_up(ubus_context* ctx, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
    close(ctx->sock.fd);
    wait_to_be_killed();
}

int interrupt(ubus_context* ctx, ubus_object* obj, ubus_request_data* req, const char* method,
              blob_attr* msg) {
    ::kill(getppid(), SIGTERM);
    return silent(ctx, obj, req, method, msg);
}

const blobmsg_policy value_policy[] = {{"value", BLOBMSG_TYPE_INT32}};
const ubus_method svc_methods[] = {
    UBUS_METHOD_NOARG("echo", echo),         UBUS_METHOD("status", status, value_policy),
    UBUS_METHOD("late", late, value_policy), UBUS_METHOD_NOARG("silent", silent),
    UBUS_METHOD_NOARG("hang_up", hang_up),   UBUS_METHOD_NOARG("interrupt", interrupt),
};
ubus_object_type svc_type = UBUS_OBJECT_TYPE("svc", svc_methods);
ubus_object svc;

} // namespace

void offer_svc(ubus_context* ctx) {
    svc = {};
    svc.name = "svc";
    svc.type = &svc_type;
    svc.methods = svc_methods;
    svc.n_methods = ARRAY_SIZE(svc_methods);
    if (ubus_add_object(ctx, &svc) != 0) {
        _exit(1);
    }
}

ServiceProcess::ServiceProcess(const char* socket,
                               const std::function<void(ubus_context*)>& offer) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // also when the test crashes
        close(ready[0]);
        serve(socket, offer, ready[1]);
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the service did not come up";
    close(ready[0]);
}

void ServiceProcess::kill() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        EXPECT_EQ(TEMP_FAILURE_RETRY(waitpid(m_pid, &status, 0)), m_pid)
            << "the service had ended before";
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "the service had ended before, wait status " << status;
        m_pid = -1;
    }
}
