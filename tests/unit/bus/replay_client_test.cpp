// The client library against recordings of stock peers: for the same calls it sends the same bytes.

#include <gtest/gtest.h>

#include "playback.h"
#include "wire/platform.h"

namespace {

struct Table {
    blob_buf buf = {};
    explicit Table(const char* json) {
        blob_buf_init(&buf, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&buf, json));
    }
    ~Table() { blob_buf_free(&buf); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
};

class ReplayClient : public testing::Test {
protected:
    void play(const char* recording, int connection) {
        m_playback = std::make_unique<Playback>(recording, connection);
        m_playback->start();
        ctx = ubus_connect(m_playback->socket());
        ASSERT_NE(ctx, nullptr);
    }

    // For clients that serve: runs uloop until the recording is over.
    void play_and_hang_up(const char* recording, int connection) {
        m_playback = std::make_unique<Playback>(recording, connection);
        m_playback->hang_up_at_the_end();
        m_playback->start();
        ctx = ubus_connect(m_playback->socket());
        ASSERT_NE(ctx, nullptr);
    }

    void serve() {
        ubus_add_uloop(ctx);
        uloop_run();
    }

    void TearDown() override {
        ubus_free(ctx);
        m_playback.reset();
        uloop_done();
    }

    uint32_t find(const char* path) {
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(ctx, path, &id), UBUS_STATUS_OK);
        return id;
    }

    // Looks `svc` up and calls it. The answer stands in `answer`, as JSON.
    int call(const char* method, const char* json) {
        const Table arguments(json);
        return ubus_invoke(ctx, find("svc"), method, arguments.buf.head, keep_answer, this, 5000);
    }

    static void keep_answer(ubus_request* req, int type, blob_attr* msg) {
        EXPECT_EQ(type, UBUS_MSG_DATA);
        char* json = blobmsg_format_json(msg, true);
        static_cast<ReplayClient*>(req->priv)->answer += json;
        free(json);
    }

    static void keep_path(ubus_context*, ubus_object_data* obj, void* priv) {
        static_cast<ReplayClient*>(priv)->paths += std::string(obj->path) + "\n";
    }

    ubus_context* ctx = nullptr;
    std::string answer;
    std::string paths;

private:
    std::unique_ptr<Playback> m_playback;
};

int get_device_id(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*,
                  blob_attr*) {
    const Table reply(R"({"device_id": "DEV0123456789"})");
    return ubus_send_reply(ctx, req, reply.buf.head);
}

int get_info(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr*) {
    EXPECT_STREQ(req->acl.user, "root");
    EXPECT_STREQ(req->acl.group, "root");
    const Table reply(R"({"mac": "AA-BB-CC-DD-EE-FF", "fw_cur_id": "FW01"})");
    return ubus_send_reply(ctx, req, reply.buf.head);
}

int reload(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr* msg) {
    char* json = blobmsg_format_json(msg, true);
    EXPECT_STREQ(json, R"({"address":"10.0.0.1","port":8443})");
    free(json);
    return 100;
}

const blobmsg_policy info_policy[] = {{"infoMask", BLOBMSG_TYPE_INT32}};
const blobmsg_policy reload_policy[] = {{"address", BLOBMSG_TYPE_STRING},
                                        {"port", BLOBMSG_TYPE_INT32}};
const ubus_method methods[] = {
    UBUS_METHOD_NOARG("get_device_id", get_device_id),
    UBUS_METHOD("getInfo", get_info, info_policy),
    UBUS_METHOD("reload", reload, reload_policy),
};

struct Svc {
    ubus_object_type type = UBUS_OBJECT_TYPE("svc", methods);
    ubus_object object = {};
    Svc() {
        object.name = "svc";
        object.type = &type;
        object.methods = methods;
        object.n_methods = ARRAY_SIZE(methods);
    }
};

TEST_F(ReplayClient, ServesCallsAsTheStockServiceDoes) {
    play_and_hang_up("vectors.txt", 1);
    Svc svc;
    EXPECT_EQ(ctx->local_id, 0x159066ccU);
    EXPECT_EQ(ubus_add_object(ctx, &svc.object), UBUS_STATUS_OK);
    EXPECT_EQ(svc.object.id, 0x1c60effcU);
    EXPECT_EQ(svc.type.id, 0xcbb71575U);
    serve();
}

TEST_F(ReplayClient, ListsAllObjects) {
    play("vectors.txt", 2);
    EXPECT_EQ(ubus_lookup(ctx, nullptr, keep_path, this), UBUS_STATUS_OK);
    EXPECT_EQ(paths, "svc\n");
}

TEST_F(ReplayClient, ListsObjectsByPrefix) {
    play("vectors.txt", 11);
    EXPECT_EQ(ubus_lookup(ctx, "s*", keep_path, this), UBUS_STATUS_OK);
    EXPECT_EQ(paths, "svc\n");
}

TEST_F(ReplayClient, TellsThatNoObjectHasAPath) {
    play("vectors.txt", 9);
    uint32_t id = 7;
    EXPECT_EQ(ubus_lookup_id(ctx, "nope", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(id, 7U);
}

TEST_F(ReplayClient, CallsWithoutArguments) {
    play("vectors.txt", 4);
    EXPECT_EQ(call("get_device_id", "{}"), UBUS_STATUS_OK);
    EXPECT_EQ(answer, R"({"device_id":"DEV0123456789"})");
}

TEST_F(ReplayClient, CallsWithArguments) {
    play("vectors.txt", 5);
    EXPECT_EQ(call("getInfo", R"({"infoMask": 33})"), UBUS_STATUS_OK);
    EXPECT_EQ(answer, R"({"mac":"AA-BB-CC-DD-EE-FF","fw_cur_id":"FW01"})");
}

TEST_F(ReplayClient, TakesDataAndStatusThatComeApart) {
    play("vectors.txt", 6);
    EXPECT_EQ(call("getInfo", R"({"infoMask": 33})"), UBUS_STATUS_OK);
    EXPECT_EQ(answer, R"({"mac":"AA-BB-CC-DD-EE-FF","fw_cur_id":"FW01"})");
}

TEST_F(ReplayClient, ReportsAMethodsOwnStatus) {
    play("vectors.txt", 7);
    EXPECT_EQ(call("reload", R"({"address": "10.0.0.1", "port": 8443})"), 100);
}

TEST_F(ReplayClient, ReportsAMissingMethod) {
    play("vectors.txt", 8);
    EXPECT_EQ(call("nope", "{}"), UBUS_STATUS_METHOD_NOT_FOUND);
}

void ignore_event(ubus_context*, ubus_event_handler*, const char*, blob_attr*) {
    ADD_FAILURE() << "no event was recorded";
}

TEST_F(ReplayClient, RegistersForEventsAndLooksUpOnOneConnection) {
    play("vectors.txt", 14);
    ubus_event_handler listener = {};
    listener.cb = ignore_event;
    EXPECT_EQ(ubus_register_event_handler(ctx, &listener, "ubus.object.add"), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_lookup(ctx, nullptr, keep_path, this), UBUS_STATUS_OK);
    EXPECT_EQ(paths, "svc\n");
}

struct Listener {
    ubus_event_handler handler = {};
    std::string seen;
};

void keep_event(ubus_context*, ubus_event_handler* ev, const char* type, blob_attr* msg) {
    char* json = blobmsg_format_json(msg, true);
    container_of(ev, Listener, handler)->seen += std::string(type) + " " + json + "\n";
    free(json);
}

TEST_F(ReplayClient, TakesEventsAsTheStockListenerDoes) {
    play_and_hang_up("vectors-events.txt", 1);
    Listener listener;
    listener.handler.cb = keep_event;
    EXPECT_EQ(ubus_register_event_handler(ctx, &listener.handler, "foo*"), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_register_event_handler(ctx, &listener.handler, "ubus.object.remove"),
              UBUS_STATUS_OK);
    serve();
    EXPECT_EQ(listener.seen, "foo.bar {\"a\":1,\"b\":\"two\",\"c\":[true,3]}\n"
                             "ubus.object.remove {\"id\":630192541,\"path\":\"svc\"}\n");
}

TEST_F(ReplayClient, SendsAnEventOfManyTypes) {
    play("vectors-events.txt", 2);
    const Table data(R"({"a": 1, "b": "two", "c": [true, 3]})");
    EXPECT_EQ(ubus_send_event(ctx, "foo.bar", data.buf.head), UBUS_STATUS_OK);
}

TEST_F(ReplayClient, SendsAnEvent) {
    play("vectors-events.txt", 3);
    const Table data(R"({"x": 1})");
    EXPECT_EQ(ubus_send_event(ctx, "other", data.buf.head), UBUS_STATUS_OK);
}

TEST_F(ReplayClient, RegistersAnObject) {
    play("vectors-events.txt", 4);
    Svc svc;
    EXPECT_EQ(ubus_add_object(ctx, &svc.object), UBUS_STATUS_OK);
    EXPECT_EQ(svc.object.id, 0x258ff99dU);
    EXPECT_EQ(svc.type.id, 0xe5bf398aU);
}

} // namespace
