// A client of the library on a real broker.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "broker_process.h"
#include "deadline.h"
#include "service_process.h"
#include "wire/platform.h"

struct Table {
    blob_buf buf = {};
    explicit Table(const std::string& json = "{}") {
        blob_buf_init(&buf, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&buf, json.c_str())) << json;
    }
    ~Table() { blob_buf_free(&buf); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    blob_attr* head() const { return buf.head; }
};

inline std::string json_of(blob_attr* table) {
    char* json = table ? blobmsg_format_json(table, true) : nullptr;
    const std::string text = json ? json : "";
    free(json);
    return text;
}

class Client : public testing::Test {
protected:
    void SetUp() override {
        ctx = ubus_connect(broker.socket());
        ASSERT_NE(ctx, nullptr);
    }
    void TearDown() override {
        ubus_free(ctx);
        uloop_done();
    }

    uint32_t find(const char* path) {
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(ctx, path, &id), UBUS_STATUS_OK) << path;
        return id;
    }

    // Calls a method of `svc` and waits; the answers stand in `answer`.
    int call(const char* method, const std::string& json = "{}", int timeout_ms = 20000) {
        const Table arguments(json);
        answer.clear();
        return ubus_invoke(ctx, find("svc"), method, arguments.head(), keep_answer, &answer,
                           timeout_ms);
    }

    static void keep_answer(ubus_request* req, int, blob_attr* msg) {
        *static_cast<std::string*>(req->priv) += json_of(msg);
    }

    BrokerProcess broker;
    ubus_context* ctx = nullptr;
    std::string answer;
};

// A call under way, with what comes of it.
struct AsyncCall {
    ubus_request request = {};
    std::string answer;
    int completed = 0;
    int status = -1000;

    int start(ubus_context* ctx, uint32_t object, const char* method,
              const std::string& json = "{}") {
        const Table arguments(json);
        const int failed = ubus_invoke_async(ctx, object, method, arguments.head(), &request);
        if (failed) {
            return failed;
        }
        request.data_cb = on_data;
        request.complete_cb = on_complete;
        request.priv = this;
        ubus_complete_request_async(ctx, &request);
        return 0;
    }

private:
    static void on_data(ubus_request* req, int, blob_attr* msg) {
        static_cast<AsyncCall*>(req->priv)->answer += json_of(msg);
    }
    static void on_complete(ubus_request* req, int ret) {
        AsyncCall* self = static_cast<AsyncCall*>(req->priv);
        self->completed++;
        self->status = ret;
    }
};
