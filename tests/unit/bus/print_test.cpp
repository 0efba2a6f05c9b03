// What the tool prints when memory does not suffice for it.

#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

#include "tool/print.h"

namespace {

bool isMemoryShort = false;

} // namespace

// Every text is made by this function of the library.
extern "C" char* __real_blobmsg_format_json_with_cb(blob_attr* attr, bool list,
                                                    blobmsg_json_format_t cb, void* priv,
                                                    int indent);
extern "C" char* __wrap_blobmsg_format_json_with_cb(blob_attr* attr, bool list,
                                                    blobmsg_json_format_t cb, void* priv,
                                                    int indent);
extern "C" char* __wrap_blobmsg_format_json_with_cb(blob_attr* attr, bool list,
                                                    blobmsg_json_format_t cb, void* priv,
                                                    int indent) {
    return isMemoryShort ? nullptr
                         : __real_blobmsg_format_json_with_cb(attr, list, cb, priv, indent);
}

namespace {

TEST(Print, AnAnswerForWhichMemoryDoesNotSufficeIsReported) {
    blob_buf table = {};
    blob_buf_init(&table, 0);
    blobmsg_add_string(&table, "text", "hello");
    testing::internal::CaptureStdout();
    bus::print_answer(table.head, true);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "{\"text\":\"hello\"}\n");
    EXPECT_TRUE(bus::printed_all());

    isMemoryShort = true;
    testing::internal::CaptureStdout();
    bus::print_answer(table.head, true);
    bus::print_event("event", table.head);
    isMemoryShort = false;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(bus::printed_all());
    blob_buf_free(&table);
}

} // namespace
