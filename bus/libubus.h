/*
 * The client side of ubus, the message bus of the router's userland.
 *
 * A program connects to the broker (ubusd), offers objects whose methods others call, calls the
 * methods of others, and sends and receives events. Messages are libubox blobs.
 *
 * Threads: main thread only. Everything here runs on uloop, which is static state of the process,
 * and a context has no lock. Every callback is called on the thread that runs uloop_run() or that
 * sits in one of the blocking calls below.
 *
 * Blocking calls (ubus_add_object, ubus_remove_object, ubus_lookup, ubus_lookup_id, ubus_invoke,
 * ubus_complete_request, ubus_register_event_handler, ubus_send_event) read the connection
 * themselves while they wait: replies to other requests reach their callbacks meanwhile; calls to
 * the program's own objects are kept and handled afterwards.
 *
 * Results are 0 or one of UBUS_STATUS_*, unless a function says otherwise. Whatever sends returns
 * UBUS_STATUS_CONNECTION_FAILED when there is no connection, or when the broker took nothing for 10
 * seconds, which ends the connection.
 */
#pragma once

#include <errno.h>
#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#ifdef __cplusplus
extern "C" { /* libubox's headers do not say it themselves */
#endif

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <libubox/utils.h>

/* Where the broker listens unless told otherwise. */
#define UBUS_UNIX_SOCKET "/var/run/ubus.sock"

/* How a request ended. A method may answer any other 32-bit value; it reaches the caller as is. */
enum ubus_msg_status {
    UBUS_STATUS_OK,
    UBUS_STATUS_INVALID_COMMAND,
    UBUS_STATUS_INVALID_ARGUMENT,
    UBUS_STATUS_METHOD_NOT_FOUND,
    UBUS_STATUS_NOT_FOUND,
    UBUS_STATUS_NO_DATA,
    UBUS_STATUS_PERMISSION_DENIED,
    UBUS_STATUS_TIMEOUT, /* also: the connection or the called object went in mid-call */
    UBUS_STATUS_NOT_SUPPORTED,
    UBUS_STATUS_UNKNOWN_ERROR,
    UBUS_STATUS_CONNECTION_FAILED,
    UBUS_STATUS_NO_MEMORY,
    UBUS_STATUS_PARSE_ERROR,
    UBUS_STATUS_SYSTEM_ERROR,
    __UBUS_STATUS_LAST
};

/* Kinds of message; the `type` that a data handler is given. */
enum ubus_msg_type {
    UBUS_MSG_HELLO,
    UBUS_MSG_STATUS,
    UBUS_MSG_DATA,
    UBUS_MSG_PING,
    UBUS_MSG_LOOKUP,
    UBUS_MSG_INVOKE,
    UBUS_MSG_ADD_OBJECT,
    UBUS_MSG_REMOVE_OBJECT,
    UBUS_MSG_SUBSCRIBE,
    UBUS_MSG_UNSUBSCRIBE,
    UBUS_MSG_NOTIFY,
    UBUS_MSG_MONITOR,
    __UBUS_MSG_LAST
};

struct ubus_context;
struct ubus_object;
struct ubus_request;
struct ubus_request_data;
struct ubus_object_data;
struct ubus_event_handler;

/*
 * A method of an object is called. `msg` holds the arguments (never null, read with
 * blobmsg_parse(), valid until the handler returns). The result is the caller's status. The
 * handler must not free the context.
 */
typedef int (*ubus_handler_t)(struct ubus_context* ctx, struct ubus_object* obj,
                              struct ubus_request_data* req, const char* method,
                              struct blob_attr* msg);
/* One object of a lookup; everything in `obj` is valid until the handler returns. */
typedef void (*ubus_lookup_handler_t)(struct ubus_context* ctx, struct ubus_object_data* obj,
                                      void* priv);
/* An event of the given type; `msg` as for a method. */
typedef void (*ubus_event_handler_t)(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                     const char* type, struct blob_attr* msg);
/*
 * Data in answer to a request; may come several times, or never. Valid until it returns. `msg` is
 * null when the message carries none.
 */
typedef void (*ubus_data_handler_t)(struct ubus_request* req, int type, struct blob_attr* msg);
/* A request ended with status `ret`. The library forgets `req` before the call. */
typedef void (*ubus_complete_handler_t)(struct ubus_request* req, int ret);
/* Something happened to the connection. */
typedef void (*ubus_connect_handler_t)(struct ubus_context* ctx);

/* Initialisers, for methods and types that live as long as the object. */
#define UBUS_OBJECT_TYPE(_name, _methods)                                                          \
    { .name = _name, .id = 0, .methods = _methods, .n_methods = ARRAY_SIZE(_methods) }

#define UBUS_METHOD(_name, _handler, _policy)                                                      \
    {                                                                                              \
        .name = _name, .handler = _handler, .mask = 0, .tags = 0, .policy = _policy,               \
        .n_policy = ARRAY_SIZE(_policy)                                                            \
    }

#define UBUS_METHOD_NOARG(_name, _handler)                                                         \
    { .name = _name, .handler = _handler, .mask = 0, .tags = 0, .policy = NULL, .n_policy = 0 }

/*
 * A method. The policy is published with the object; the library does not check arguments
 * against it. A method without name takes every call that no method before it takes.
 */
struct ubus_method {
    const char* name;
    ubus_handler_t handler;

    unsigned long mask; /* not 0: only the policy entries of these bits are published */
    unsigned long tags; /* the program's own; the library does not look at it */
    const struct blobmsg_policy* policy;
    int n_policy;
};

/* The published signature of one or several objects. `id` is the broker's; 0 before the first. */
struct ubus_object_type {
    const char* name;
    uint32_t id;

    const struct ubus_method* methods;
    int n_methods;
};

/*
 * An object that the program offers. The program owns it; it must stay where it is until it is
 * removed or its context is freed. Zero all members that are not used. Without `type` an object
 * is not listed; without `name` it is reached by its id only.
 */
struct ubus_object {
    struct avl_node avl; /* the library's */

    const char* name;
    uint32_t id; /* given by the broker, another one after each ubus_reconnect */

    const char* path;
    struct ubus_object_type* type;

    const struct ubus_method* methods;
    int n_methods;
};

/* What a lookup tells about an object. `signature` is null or holds a table for each method. */
struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char* path;
    struct blob_attr* signature;
};

/* Who calls: names of user and group as the broker knows them, null when it did not say. */
struct ubus_acl_key {
    const char* user;
    const char* group;
    const char* object;
};

/* A call that is being handled; needed to answer it. */
struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;

    struct ubus_acl_key acl; /* valid until the handler returns, deferred or not */

    bool deferred; /* the library's */
};

/*
 * A request of the program. The program owns it: from ubus_complete_request_async until
 * complete_cb or ubus_abort_request it must stay where it is. ubus_invoke_async clears it, so
 * callbacks and `priv` are set after that call.
 */
struct ubus_request {
    struct list_head list; /* the library's */

    int status_code;
    bool status_msg; /* ended; status_code holds */
    bool cancelled;  /* by ubus_abort_request */

    uint32_t peer;
    uint16_t seq;

    ubus_data_handler_t raw_data_cb; /* gets the whole message body; goes before data_cb */
    ubus_data_handler_t data_cb;     /* gets the answered table */
    ubus_complete_handler_t complete_cb;

    struct ubus_context* ctx;
    void* priv; /* the program's */
};

/* Made by ubus_connect only, freed by ubus_free. */
struct ubus_context {
    struct list_head requests; /* started, unanswered */
    struct avl_tree objects;   /* struct ubus_object by id */
    struct list_head pending;  /* calls kept until nobody waits */

    struct uloop_fd sock; /* fd -1 when there is no connection; eof when it was lost */
    struct uloop_timeout pending_timer;

    uint32_t local_id; /* our client id at the broker */
    uint16_t request_seq;
    int stack_depth; /* blocking calls under way */

    /*
     * The connection was lost. Called from the read handler, once, after all requests ended with
     * UBUS_STATUS_TIMEOUT and after the socket was taken out of uloop. May reconnect, may free
     * the context. The default ends uloop.
     */
    void (*connection_lost)(struct ubus_context* ctx);
};

/* A listener for events. `obj` is the library's; zero it. */
struct ubus_event_handler {
    struct ubus_object obj;

    ubus_event_handler_t cb;
};

/*
 * Connects to the broker at `path` (null: UBUS_UNIX_SOCKET), calling uloop_init on the way. The
 * socket is close-on-exec and non-blocking and is in uloop only after ubus_add_uloop.
 * Returns null when there is no broker, or none that says hello within 5 seconds, or no memory.
 */
struct ubus_context* ubus_connect(const char* path);

/*
 * Gives up the present connection, dead or alive, and makes a new one, registering every object
 * anew (with new ids). Pending requests end with UBUS_STATUS_TIMEOUT. The new socket is not in
 * uloop, and the patterns of event handlers are not registered: the program does both again.
 * Returns 0; UBUS_STATUS_CONNECTION_FAILED; or the status of the first object that was refused,
 * the connection then standing. It may be called again after any failure.
 */
int ubus_reconnect(struct ubus_context* ctx, const char* path);

/*
 * Closes the connection and frees the context; the broker then drops its objects. Pending
 * requests are forgotten without a callback. Null is allowed.
 */
void ubus_free(struct ubus_context* ctx);

/*
 * The text for a status. One for an unknown status stands in a static buffer and is valid until
 * the next call.
 */
const char* ubus_strerror(int error);

/* Has uloop read the connection (ULOOP_READ, ULOOP_BLOCKING); uloop_run then serves calls. */
void ubus_add_uloop(struct ubus_context* ctx);

/*
 * Registers an object, and its type when that is new. UBUS_STATUS_INVALID_ARGUMENT when the name
 * is taken or the object is registered already; UBUS_STATUS_PERMISSION_DENIED.
 */
int ubus_add_object(struct ubus_context* ctx, struct ubus_object* obj);

/* Takes an object back. UBUS_STATUS_NOT_FOUND when it is not registered. */
int ubus_remove_object(struct ubus_context* ctx, struct ubus_object* obj);

/*
 * Tells `cb` every object whose path is `path`, or begins with it when it ends in '*'; all, in
 * name order, when it is null. UBUS_STATUS_NOT_FOUND when a path was given and nothing matches.
 */
int ubus_lookup(struct ubus_context* ctx, const char* path, ubus_lookup_handler_t cb, void* priv);

/* The id of the object at `path`, in *id; UBUS_STATUS_NOT_FOUND leaves *id alone. */
int ubus_lookup_id(struct ubus_context* ctx, const char* path, uint32_t* id);

/*
 * Calls a method and waits. `msg` is a blob_buf's head with the arguments, or null for none.
 * `cb` may be null. `timeout` is in milliseconds, 0 for none; on expiry, and when the connection
 * is lost, UBUS_STATUS_TIMEOUT. UBUS_STATUS_NO_DATA when uloop was told to end meanwhile, by
 * SIGINT, SIGTERM or uloop_end.
 * UBUS_STATUS_INVALID_ARGUMENT for a message above 1 MiB, which is not sent.
 */
int ubus_invoke(struct ubus_context* ctx, uint32_t obj, const char* method, struct blob_attr* msg,
                ubus_data_handler_t cb, void* priv, int timeout);

/*
 * Sends a call without waiting. On 0 either ubus_complete_request or ubus_complete_request_async
 * is to follow, before anything else reads the connection; or nothing, when no answer is wanted.
 */
int ubus_invoke_async(struct ubus_context* ctx, uint32_t obj, const char* method,
                      struct blob_attr* msg, struct ubus_request* req);

/* Waits until a sent request ends; results as for ubus_invoke. complete_cb is called as well. */
int ubus_complete_request(struct ubus_context* ctx, struct ubus_request* req, int timeout);

/*
 * Leaves a sent request to uloop: its callbacks are called from there. On a connection that is
 * lost already, complete_cb is called before this returns.
 */
void ubus_complete_request_async(struct ubus_context* ctx, struct ubus_request* req);

/* Forgets a request; no callback of it is called any more. Allowed for one that ended. */
void ubus_abort_request(struct ubus_context* ctx, struct ubus_request* req);

/*
 * Sends data to a caller; may be called several times before the status. `msg` is a blob_buf's
 * head. UBUS_STATUS_INVALID_ARGUMENT for a message above 1 MiB, which is not sent.
 */
int ubus_send_reply(struct ubus_context* ctx, struct ubus_request_data* req, struct blob_attr* msg);

/*
 * In a method handler: copies the request to *new_req, to be answered later with
 * ubus_send_reply and ubus_complete_deferred_request. The handler's result is then ignored.
 */
void ubus_defer_request(struct ubus_context* ctx, struct ubus_request_data* req,
                        struct ubus_request_data* new_req);

/* Ends a deferred request with a status. */
void ubus_complete_deferred_request(struct ubus_context* ctx, struct ubus_request_data* req,
                                    int ret);

/*
 * Has `ev` told of events whose type is `pattern`, or begins with it when it ends in '*'. May be
 * called several times for one handler. ubus_remove_object(ctx, &ev->obj) ends it.
 */
int ubus_register_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                const char* pattern);

/* Sends an event of type `id`; `data` is a blob_buf's head, or null for an empty table. */
int ubus_send_event(struct ubus_context* ctx, const char* id, struct blob_attr* data);

#ifdef __cplusplus
}
#endif
