/* The interface from C11. Compiling it is half of the test; interface_test.cpp runs the rest. */

#include <libubus.h>

static int answer(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                  const char* method, struct blob_attr* msg) {
    (void)ctx;
    (void)obj;
    (void)req;
    (void)method;
    (void)msg;
    return UBUS_STATUS_NOT_SUPPORTED;
}

enum { PORT, ADDRESS, COUNT };

static const struct blobmsg_policy policy[COUNT] = {
    [PORT] = {.name = "port", .type = BLOBMSG_TYPE_INT32},
    [ADDRESS] = {.name = "address", .type = BLOBMSG_TYPE_STRING},
};

static const struct ubus_method methods[] = {
    UBUS_METHOD("reload", answer, policy),
    UBUS_METHOD_NOARG("stop", answer),
};

static struct ubus_object_type type = UBUS_OBJECT_TYPE("c", methods);

static struct ubus_object object = {
    .name = "c",
    .type = &type,
    .methods = methods,
    .n_methods = ARRAY_SIZE(methods),
};

struct ubus_object* object_in_c(void);

struct ubus_object* object_in_c(void) {
    return &object;
}
