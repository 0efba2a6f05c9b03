#include "client/internal.h"

namespace bus {

namespace {

// A signal that ends uloop may fall just before a wait begins; it is noticed after this long.
constexpr int wait_slice_ms = 1000;

int64_t now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

ubus_request* find(ubus_context* ctx, uint16_t seq, uint32_t peer) {
    ubus_request* req;
    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq == seq && req->peer == peer) {
            return req;
        }
    }
    return nullptr;
}

// The counter is 16 bits wide: after a turn it may meet a request that is unanswered still.
uint16_t next_seq(ubus_context* ctx, uint32_t peer) {
    for (int tries = 0; tries < UINT16_MAX && find(ctx, ++ctx->request_seq, peer); tries++) {
    }
    return ctx->request_seq;
}

void end(ubus_request* req, int status) {
    list_del_init(&req->list);
    req->status_msg = true;
    req->status_code = status;
    if (req->complete_cb) {
        req->complete_cb(req, status);
    }
}

void take_data(ubus_request* req, const message& answer, blob_attr* const* attrs) {
    const int type = answer.header.type;
    if (req->raw_data_cb) {
        req->raw_data_cb(req, type, answer.body);
    } else if (req->data_cb) {
        req->data_cb(req, type, attrs[attr_data]);
    }
}

// The milliseconds that are left until `deadline` (0: there is none), at most a slice.
int next_wait(int64_t deadline) {
    if (deadline == 0) {
        return wait_slice_ms;
    }
    const int64_t left = deadline - now_ms();
    if (left <= 0) {
        return 0;
    }
    return left < wait_slice_ms ? static_cast<int>(left) : wait_slice_ms;
}

void wait_until_ended(ubus_context* ctx, ubus_request* req, int timeout) {
    const int64_t deadline = timeout > 0 ? now_ms() + timeout : 0;
    transport_dispatch(ctx); // whoever called us may be in the middle of what was read
    while (!req->status_msg && !req->cancelled) {
        const int wait = next_wait(deadline);
        if (wait == 0) {
            end(req, UBUS_STATUS_TIMEOUT);
        } else if (uloop_cancelled) {
            end(req, UBUS_STATUS_NO_DATA);
        } else {
            transport_wait(ctx, wait);
        }
    }
}

// Calls that were kept during a wait are handled from uloop, for whoever waited is not done yet;
// a program without uloop has no better moment than this.
void schedule_kept(ubus_context* ctx) {
    if (list_empty(&ctx->pending)) {
        return;
    }
    if (ctx->sock.registered) {
        uloop_timeout_set(&ctx->pending_timer, 0);
    } else {
        serve_kept(ctx);
    }
}

} // namespace

blocking_call::blocking_call(ubus_context* ctx) : m_ctx(ctx), m_was_cancelled(false) {
    if (ctx->stack_depth++ == 0) {
        m_was_cancelled = uloop_cancelled;
        uloop_cancelled = false;
    }
}

blocking_call::~blocking_call() {
    uloop_cancelled = uloop_cancelled || m_was_cancelled;
    if (--m_ctx->stack_depth == 0) {
        schedule_kept(m_ctx);
    }
}

int request_start(ubus_context* ctx, ubus_request* req, int type, uint32_t peer,
                  const blob_attr* body) {
    memset(req, 0, sizeof(*req));
    INIT_LIST_HEAD(&req->list);
    req->ctx = ctx;
    req->peer = peer;
    req->seq = next_seq(ctx, peer);
    return transport_send(ctx, {static_cast<uint8_t>(type), req->seq, peer}, body);
}

void request_answer(ubus_context* ctx, const message& answer) {
    ubus_request* req = find(ctx, answer.header.seq, answer.header.peer);
    if (!req) {
        return; // timed out or aborted
    }
    blob_attr* attrs[attr_count];
    if (parse_attributes(answer.body, attrs) != parse_result::ok) {
        end(req, UBUS_STATUS_PARSE_ERROR);
    } else if (answer.header.type == UBUS_MSG_DATA) {
        take_data(req, answer, attrs);
    } else if (attrs[attr_status]) {
        end(req, static_cast<int>(attribute_u32(attrs[attr_status])));
    } else {
        end(req, UBUS_STATUS_PARSE_ERROR);
    }
}

void request_end_all(ubus_context* ctx, int status) {
    LIST_HEAD(ending); // a callback may begin new requests, on a new connection
    list_splice_init(&ctx->requests, &ending);
    while (!list_empty(&ending)) {
        end(list_first_entry(&ending, ubus_request, list), status);
    }
}

} // namespace bus

using namespace bus;

extern "C" {

int ubus_invoke_async(ubus_context* ctx, uint32_t obj, const char* method, blob_attr* msg,
                      ubus_request* req) {
    blob_writer body;
    if (!body.ready || !put_u32(body, attr_objid, obj) || !put_text(body, attr_method, method) ||
        !put_table(body, attr_data, msg)) {
        return UBUS_STATUS_NO_MEMORY;
    }
    return request_start(ctx, req, UBUS_MSG_INVOKE, obj, body.buf.head);
}

void ubus_complete_request_async(ubus_context* ctx, ubus_request* req) {
    if (!list_empty(&req->list) || req->status_msg || req->cancelled) {
        return;
    }
    list_add(&req->list, &ctx->requests);
    if (connection_of(ctx).lost) {
        end(req, UBUS_STATUS_TIMEOUT);
    }
}

int ubus_complete_request(ubus_context* ctx, ubus_request* req, int timeout) {
    // Called after the wait, not from within: it may free the request.
    const ubus_complete_handler_t complete_cb = req->complete_cb;
    req->complete_cb = nullptr;

    const blocking_call call(ctx);
    ubus_complete_request_async(ctx, req);
    wait_until_ended(ctx, req, timeout);

    const int status = req->status_msg ? req->status_code : UBUS_STATUS_NO_DATA;
    req->complete_cb = complete_cb;
    if (complete_cb) {
        complete_cb(req, status);
    }
    return status;
}

void ubus_abort_request(ubus_context*, ubus_request* req) {
    if (!req->status_msg) {
        req->cancelled = true;
        list_del_init(&req->list);
    }
}

int ubus_invoke(ubus_context* ctx, uint32_t obj, const char* method, blob_attr* msg,
                ubus_data_handler_t cb, void* priv, int timeout) {
    const blocking_call call(ctx);
    ubus_request req;
    const int status = ubus_invoke_async(ctx, obj, method, msg, &req);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

} // extern "C"
