// libubox, as the bus uses it. Its headers lack the C linkage that C++ needs; this is the one place
// that gives it to them (libubus.h does so for those that its own interface shows).
#pragma once

#include "libubus.h"

extern "C" {
#include <libubox/avl-cmp.h>
#include <libubox/blobmsg_json.h>
#include <libubox/usock.h>
}
