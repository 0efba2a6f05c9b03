// A client that could never hear of anything does not connect.

#include <gtest/gtest.h>

#include "broker_process.h"
#include "libubus.h"

namespace {

bool isLoopRefused = false;

} // namespace

extern "C" int __real_uloop_init();
extern "C" int __wrap_uloop_init();
extern "C" int __wrap_uloop_init() {
    return isLoopRefused ? -1 : __real_uloop_init();
}

namespace {

TEST(Connect, FailsWhenNothingCanBeWatched) {
    BrokerProcess broker;
    isLoopRefused = true;
    EXPECT_EQ(ubus_connect(broker.socket()), nullptr);
    isLoopRefused = false;
    ubus_context* ctx = ubus_connect(broker.socket());
    EXPECT_NE(ctx, nullptr);
    ubus_free(ctx);
    uloop_done();
}

} // namespace
