// The client library on a real broker, with services in processes of their own.

#include <fcntl.h>

#include <chrono>
#include <vector>

#include "client_fixture.h"
#include "raw_peer.h"

namespace {

TEST_F(Client, HasAnIdAndASocketThatNeitherBlocksNorIsInherited) {
    EXPECT_GT(ctx->local_id, 1024U);
    EXPECT_TRUE(fcntl(ctx->sock.fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(ctx->sock.fd, F_GETFD) & FD_CLOEXEC);
}

TEST(Connect, FailsWithoutABroker) {
    EXPECT_EQ(ubus_connect("/tmp/bus.nobody.listens.here"), nullptr);
    ubus_free(nullptr);
    uloop_done();
}

TEST_F(Client, CallsAMethodAndGetsItsData) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    EXPECT_EQ(call("echo", R"({"a":1,"b":"two","c":[true,3]})"), UBUS_STATUS_OK);
    EXPECT_EQ(answer, R"({"a":1,"b":"two","c":[true,3]})");
}

TEST_F(Client, GetsEveryStatusUnchanged) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    for (const int status : {0, 1, 3, 7, 100, 101, -1, INT32_MAX, -INT32_MAX}) {
        EXPECT_EQ(call("status", "{\"value\":" + std::to_string(status) + "}"), status);
    }
}

TEST_F(Client, CallsWithoutAnyMessage) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    EXPECT_EQ(ubus_invoke(ctx, find("svc"), "echo", nullptr, keep_answer, &answer, 20000), 0);
    EXPECT_EQ(answer, "{}");
}

TEST_F(Client, IsToldOfMissingMethodsAndObjects) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    EXPECT_EQ(call("nope"), UBUS_STATUS_METHOD_NOT_FOUND);
    EXPECT_EQ(ubus_invoke(ctx, 5000, "echo", nullptr, nullptr, nullptr, 20000),
              UBUS_STATUS_NOT_FOUND);
}

TEST_F(Client, GetsADeferredAnswer) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    EXPECT_EQ(call("late", R"({"value":42})"), 42);
    EXPECT_EQ(answer, R"({"value":42})");
}

TEST_F(Client, WaitsNoLongerThanItsTimeLimit) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call("silent", "{}", 50), UBUS_STATUS_TIMEOUT);
    // The event loop counts from a whole millisecond on.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(49));
}

TEST_F(Client, PassesOverAnAnswerThatComesTooLate) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    AsyncCall late;
    ASSERT_EQ(late.start(ctx, find("svc"), "late", R"({"value":1})"), 0);
    ubus_abort_request(ctx, &late.request);
    EXPECT_EQ(call("late", R"({"value":2})"), 2);
    EXPECT_EQ(late.completed, 0);
    EXPECT_EQ(late.answer, "");
    ubus_abort_request(ctx, &late.request); // once more does no harm
}

TEST_F(Client, CarriesLargeMessagesBothWays) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    const std::string large = "{\"text\":\"" + std::string(900000, 'x') + "\"}";
    EXPECT_EQ(call("echo", large), UBUS_STATUS_OK);
    EXPECT_TRUE(answer == large);
    EXPECT_EQ(call("echo", R"({"a":1})"), UBUS_STATUS_OK);
    EXPECT_EQ(answer, R"({"a":1})");
}

TEST_F(Client, RefusesToSendMoreThanAMebibyte) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    const std::string large = "{\"text\":\"" + std::string(1 << 20, 'x') + "\"}";
    EXPECT_EQ(call("echo", large), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call("echo"), UBUS_STATUS_OK);
}

TEST_F(Client, IsToldWhenTheServiceHangsUpInMidCall) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    EXPECT_EQ(call("hang_up", "{}", 0), UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(ubus_invoke(ctx, 5000, "echo", nullptr, nullptr, nullptr, 20000),
              UBUS_STATUS_NOT_FOUND)
        << "the connection itself stands";
}

TEST_F(Client, StopsWaitingWhenASignalTellsUloopToEnd) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    uloop_end(); // that a loop ended before is no reason
    EXPECT_EQ(call("status", R"({"value":1})"), 1);
    EXPECT_EQ(call("interrupt", "{}", 0), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(call("echo"), UBUS_STATUS_OK);
}

TEST_F(Client, CompletesCallsFromUloop) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    ubus_add_uloop(ctx);
    std::vector<AsyncCall> calls(20);
    const uint32_t object = find("svc");
    for (size_t i = 0; i < calls.size(); i++) {
        const std::string json = "{\"value\":" + std::to_string(i) + "}";
        ASSERT_EQ(calls[i].start(ctx, object, i % 2 ? "late" : "status", json), 0);
    }
    EXPECT_TRUE(run_uloop_until([&] {
        return std::all_of(calls.begin(), calls.end(), [](auto& one) { return one.completed; });
    }));
    for (size_t i = 0; i < calls.size(); i++) {
        EXPECT_EQ(calls[i].completed, 1);
        EXPECT_EQ(calls[i].status, static_cast<int>(i));
    }
}

TEST_F(Client, WaitsForACallThatItBeganEarlier) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    ubus_request first;
    ubus_request second;
    const uint32_t object = find("svc");
    const Table three(R"({"value":3})");
    const Table four(R"({"value":4})");
    ASSERT_EQ(ubus_invoke_async(ctx, object, "late", three.head(), &first), 0);
    ASSERT_EQ(ubus_invoke_async(ctx, object, "late", four.head(), &second), 0);
    ubus_complete_request_async(ctx, &second);
    EXPECT_EQ(ubus_complete_request(ctx, &first, 20000), 3);
    EXPECT_EQ(ubus_complete_request(ctx, &second, 20000), 4);
}

// The counter is 16 bits wide; a request that waits for long must not get another one's answer.
TEST_F(Client, DoesNotReuseTheNumberOfACallThatWaits) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    const uint32_t object = find("svc");
    AsyncCall waiting;
    ASSERT_EQ(waiting.start(ctx, object, "silent"), 0);
    ctx->request_seq = static_cast<uint16_t>(waiting.request.seq - 1);
    const Table arguments(R"({"value":5})");
    EXPECT_EQ(ubus_invoke(ctx, object, "status", arguments.head(), nullptr, nullptr, 20000), 5);
    EXPECT_EQ(waiting.completed, 0);
}

// lookup

void keep_path(ubus_context*, ubus_object_data* obj, void* priv) {
    EXPECT_NE(obj->id, 0U);
    EXPECT_NE(obj->type_id, 0U);
    EXPECT_NE(obj->signature, nullptr);
    *static_cast<std::string*>(priv) += std::string(obj->path) + " ";
}

struct Objects {
    static constexpr int count = 4;
    ubus_method methods[1] = {UBUS_METHOD_NOARG("m", nullptr)};
    ubus_object_type type = UBUS_OBJECT_TYPE("t", methods);
    ubus_object objects[count] = {};
    explicit Objects(const char* const (&names)[count]) {
        for (int i = 0; i < count; i++) {
            objects[i].name = names[i];
            objects[i].type = &type;
        }
    }
};

TEST_F(Client, LooksObjectsUpByPathByPrefixAndAll) {
    Objects own({"net.b", "net.a", "sys", "net"});
    for (ubus_object& object : own.objects) {
        ASSERT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    }
    std::string paths;
    EXPECT_EQ(ubus_lookup(ctx, nullptr, keep_path, &paths), UBUS_STATUS_OK);
    EXPECT_EQ(paths, "net net.a net.b sys ");
    paths.clear();
    EXPECT_EQ(ubus_lookup(ctx, "net.*", keep_path, &paths), UBUS_STATUS_OK);
    EXPECT_EQ(paths, "net.a net.b ");
    paths.clear();
    EXPECT_EQ(ubus_lookup(ctx, "net", keep_path, &paths), UBUS_STATUS_OK);
    EXPECT_EQ(paths, "net ");
    EXPECT_EQ(ubus_lookup(ctx, "none*", keep_path, &paths), UBUS_STATUS_NOT_FOUND);
}

TEST_F(Client, SharesATypeAmongObjects) {
    Objects own({"a", "b", "c", "d"});
    for (ubus_object& object : own.objects) {
        ASSERT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    }
    const uint32_t type = own.type.id;
    EXPECT_NE(type, 0U);
    for (ubus_object& object : own.objects) {
        EXPECT_EQ(own.type.id, type);
        EXPECT_EQ(ubus_remove_object(ctx, &object), UBUS_STATUS_OK);
        EXPECT_EQ(object.id, 0U);
    }
    EXPECT_EQ(own.type.id, 0U) << "the type went with its last object";
}

TEST_F(Client, AddsAndRemovesAnObjectOnce) {
    Objects own({"a", "a", "c", "d"});
    EXPECT_EQ(ubus_remove_object(ctx, &own.objects[0]), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_add_object(ctx, &own.objects[0]), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_add_object(ctx, &own.objects[0]), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(ubus_add_object(ctx, &own.objects[1]), UBUS_STATUS_INVALID_ARGUMENT) << "same name";
    EXPECT_EQ(ubus_remove_object(ctx, &own.objects[0]), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_add_object(ctx, &own.objects[1]), UBUS_STATUS_OK);
}

// A program's objects and types are static, as a rule; its contexts may come and go.
TEST_F(Client, RegistersAStaticObjectOnAnotherContext) {
    Objects own({"a", "b", "c", "d"});
    ASSERT_EQ(ubus_add_object(ctx, &own.objects[0]), UBUS_STATUS_OK);
    ubus_free(ctx);
    ctx = ubus_connect(broker.socket());
    ASSERT_NE(ctx, nullptr);
    EXPECT_TRUE(
        wait_until([&] { return ubus_add_object(ctx, &own.objects[0]) == UBUS_STATUS_OK; }));
    EXPECT_EQ(find("a"), own.objects[0].id);
}

TEST_F(Client, PublishesOnlyTheArgumentsOfItsMask) {
    const blobmsg_policy policy[] = {{"first", BLOBMSG_TYPE_INT32}, {"second", BLOBMSG_TYPE_BOOL}};
    ubus_method methods[] = {UBUS_METHOD("m", nullptr, policy)};
    methods[0].mask = 1UL << 1;
    ubus_object_type type = UBUS_OBJECT_TYPE("t", methods);
    ubus_object object = {};
    object.name = "masked";
    object.type = &type;
    ASSERT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    std::string signature;
    ubus_lookup(
        ctx, "masked",
        [](ubus_context*, ubus_object_data* obj, void* priv) {
            *static_cast<std::string*>(priv) = json_of(obj->signature);
        },
        &signature);
    EXPECT_EQ(signature, R"({"m":{"second":7}})");
}

// Lists far more than the broker may queue for one client.
TEST_F(Client, ListsTenThousandObjects) {
    RawPeer owner(broker.socket());
    owner.greeted();
    for (int i = 0; i < 10000; i++) {
        Body body;
        body.text(2, "object." + std::string(100, 'o') + std::to_string(10000 + i));
        body.table(6, R"({"method": {"argument": 3}})");
        ASSERT_EQ(owner.ask_status(UBUS_MSG_ADD_OBJECT, body), 0);
    }
    struct Seen {
        int count = 0;
        std::string last;
    } seen;
    EXPECT_EQ(ubus_lookup(
                  ctx, nullptr,
                  [](ubus_context*, ubus_object_data* obj, void* priv) {
                      Seen* so_far = static_cast<Seen*>(priv);
                      so_far->count++;
                      EXPECT_LT(so_far->last, obj->path);
                      so_far->last = obj->path;
                  },
                  &seen),
              UBUS_STATUS_OK);
    EXPECT_EQ(seen.count, 10000);
}

// events

struct Listener {
    ubus_event_handler handler = {};
    std::string seen;
    Listener() { handler.cb = on_event; }

private:
    static void on_event(ubus_context*, ubus_event_handler* ev, const char* type, blob_attr* msg) {
        container_of(ev, Listener, handler)->seen += std::string(type) + json_of(msg) + " ";
    }
};

TEST_F(Client, HearsEventsOfItsPatternsOnce) {
    Listener listener;
    ASSERT_EQ(ubus_register_event_handler(ctx, &listener.handler, "net.*"), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_register_event_handler(ctx, &listener.handler, "net.up"), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_register_event_handler(ctx, &listener.handler, "end"), UBUS_STATUS_OK);
    ubus_add_uloop(ctx);

    ubus_context* sender = ubus_connect(broker.socket());
    const Table data(R"({"up":true})");
    for (const char* type : {"net", "net.up", "network", "net.", "end2"}) {
        EXPECT_EQ(ubus_send_event(sender, type, data.head()), UBUS_STATUS_OK);
    }
    EXPECT_EQ(ubus_send_event(sender, "end", nullptr), UBUS_STATUS_OK);
    ubus_free(sender);

    EXPECT_TRUE(run_uloop_until([&] { return listener.seen.find("end{}") != std::string::npos; }));
    EXPECT_EQ(listener.seen, R"(net.up{"up":true} net.{"up":true} end{} )");
}

TEST_F(Client, HearsNoMoreAfterItsListenerIsRemoved) {
    Listener gone;
    Listener stays;
    ASSERT_EQ(ubus_register_event_handler(ctx, &gone.handler, "*"), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_register_event_handler(ctx, &stays.handler, "*"), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_remove_object(ctx, &gone.handler.obj), UBUS_STATUS_OK);
    ubus_add_uloop(ctx);
    EXPECT_EQ(ubus_send_event(ctx, "tick", nullptr), UBUS_STATUS_OK);
    EXPECT_TRUE(run_uloop_until([&] { return !stays.seen.empty(); }));
    EXPECT_EQ(gone.seen, "");
}

// nested calls

// An object of this process whose method waits until the test lets it go.
struct Gate {
    ubus_request_data held = {};
    bool entered = false;
};
Gate* gate;

int hold(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr*) {
    ubus_defer_request(ctx, req, &gate->held);
    gate->entered = true;
    return 0;
}

// In a process of its own: `outer` calls the gate and waits; `probe` tells whether it was called
// in the middle of that.
bool in_outer;

int outer(ubus_context* ctx, ubus_object*, ubus_request_data*, const char*, blob_attr* msg) {
    EXPECT_NE(msg, nullptr);
    uint32_t id = 0;
    if (ubus_lookup_id(ctx, "gate", &id) != 0) {
        return -1;
    }
    in_outer = true;
    const int status = ubus_invoke(ctx, id, "hold", nullptr, nullptr, nullptr, 20000);
    in_outer = false;
    char* json = blobmsg_format_json(msg, true); // is still ours
    const bool intact = strcmp(json, R"({"keep":"me"})") == 0;
    free(json);
    return intact ? status : -2;
}

int probe(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
    return in_outer ? 77 : 0;
}

void offer_nested(ubus_context* ctx) {
    static const ubus_method methods[] = {UBUS_METHOD_NOARG("outer", outer),
                                          UBUS_METHOD_NOARG("probe", probe)};
    static ubus_object_type type = UBUS_OBJECT_TYPE("nested", methods);
    static ubus_object object;
    object.name = "nested";
    object.type = &type;
    object.methods = methods;
    object.n_methods = ARRAY_SIZE(methods);
    if (ubus_add_object(ctx, &object) != 0) {
        _exit(1);
    }
}

TEST_F(Client, KeepsCallsThatArriveWhileItWaitsAndHandlesThemAfterwards) {
    Gate own;
    gate = &own;
    static const ubus_method methods[] = {UBUS_METHOD_NOARG("hold", hold)};
    ubus_object_type type = UBUS_OBJECT_TYPE("gate", methods);
    ubus_object object = {};
    object.name = "gate";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 1;
    ASSERT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    ubus_add_uloop(ctx);
    const ServiceProcess nested(broker.socket(), offer_nested);
    const uint32_t id = find("nested");

    AsyncCall waiting;
    ASSERT_EQ(waiting.start(ctx, id, "outer", R"({"keep":"me"})"), 0);
    ASSERT_TRUE(run_uloop_until([&] { return own.entered; }));
    // One connection: the broker forwards the probes before it forwards the answer.
    AsyncCall probes[30];
    for (AsyncCall& each : probes) {
        ASSERT_EQ(each.start(ctx, id, "probe"), 0);
    }
    ubus_complete_deferred_request(ctx, &own.held, 5);
    ASSERT_TRUE(run_uloop_until([&] { return waiting.completed && probes[29].completed; }));
    EXPECT_EQ(waiting.status, 5);
    for (const AsyncCall& each : probes) {
        EXPECT_EQ(each.status, UBUS_STATUS_OK);
    }
}

} // namespace
