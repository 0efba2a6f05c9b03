#include "supervisor/bus.h"

#include <gmock/gmock.h>
#include <map>
#include <vector>

#include "support/namespaces.h"
#include "unit/control/bus_peers.h"

// The supervisor's side of the bus, with a real broker; each call of the library may be made to
// fail once.

namespace {

const bool isPrivate = private_namespaces();

struct failure {
    int countdown = 0; // the call that takes it from 1 to 0 fails
    int status = 0;
};
std::map<std::string, failure> failures; // by function

// The status that this call is to fail with, 0 for none.
int forced(const char* function) {
    failure& next = failures[function];
    return next.countdown > 0 && --next.countdown == 0 ? next.status : 0;
}

} // namespace

#pragma GCC diagnostic ignored "-Wmissing-declarations"
#define WRAPPED(NAME, PARAMETERS, ARGUMENTS)                                                       \
    extern "C" int __real_##NAME PARAMETERS;                                                       \
    extern "C" int __wrap_##NAME PARAMETERS {                                                      \
        int status = forced(#NAME);                                                                \
        return status != 0 ? status : __real_##NAME ARGUMENTS;                                     \
    }

WRAPPED(ubus_reconnect, (ubus_context * context, const char* path), (context, path))
WRAPPED(ubus_add_object, (ubus_context * context, ubus_object* object), (context, object))
WRAPPED(ubus_lookup_id, (ubus_context * context, const char* path, uint32_t* id),
        (context, path, id))
WRAPPED(ubus_register_event_handler,
        (ubus_context * context, ubus_event_handler* handler, const char* pattern),
        (context, handler, pattern))
WRAPPED(ubus_invoke_async,
        (ubus_context * context, uint32_t object, const char* method, blob_attr* message,
         ubus_request* request),
        (context, object, method, message, request))
WRAPPED(ubus_invoke,
        (ubus_context * context, uint32_t object, const char* method, blob_attr* message,
         ubus_data_handler_t callback, void* priv, int timeout),
        (context, object, method, message, callback, priv, timeout))

extern "C" ubus_context* __real_ubus_connect(const char* path);
extern "C" ubus_context* __wrap_ubus_connect(const char* path) {
    return forced("ubus_connect") != 0 ? nullptr : __real_ubus_connect(path);
}

// It returns nothing: a socket for which epoll has no room is left out of uloop.
extern "C" void __real_ubus_add_uloop(ubus_context* context);
extern "C" void __wrap_ubus_add_uloop(ubus_context* context) {
    if (forced("ubus_add_uloop") == 0) {
        __real_ubus_add_uloop(context);
    }
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

int answer_ok(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
    return UBUS_STATUS_OK;
}

// Offers an object whose methods succeed, until it is killed.
int offer(const char* name) {
    const ubus_method methods[] = {
        UBUS_METHOD_NOARG("reload", answer_ok),
        UBUS_METHOD_NOARG("stop", answer_ok),
        UBUS_METHOD_NOARG("signal", answer_ok),
    };
    ubus_object_type type = UBUS_OBJECT_TYPE("service", methods);
    ubus_object object = {};
    object.name = name;
    object.type = &type;
    object.methods = methods;
    object.n_methods = ARRAY_SIZE(methods);
    uloop_done(); // the parent's, which this process was forked with
    uloop_init();
    ubus_context* context = ubus_connect(nullptr);
    if (context == nullptr || ubus_add_object(context, &object) != UBUS_STATUS_OK) {
        return EXIT_FAILURE;
    }
    ubus_add_uloop(context);
    return uloop_run();
}

struct heard {
    std::vector<presence> presences;
    std::vector<int> calls;
};
heard* notes = nullptr;

const bus_listener listener = {
    [](presence object) { notes->presences.push_back(object); },
    [](int status) { notes->calls.push_back(status); },
    [](const char*) { return true; },
    [] {},
    [] {},
    [] { return supervision_report{}; },
};

class SupervisorBus : public testing::Test {
protected:
    SupervisorBus() {
        unlink(BUS_SOCKET);
        broker.emplace();
        daemon.emplace([] { return offer(DAEMON_OBJECT); });
        notes = &told;
        EXPECT_TRUE(eventually([] {
            bus_client caller;
            return caller.sees_object();
        }));
        uloop_init();
    }
    ~SupervisorBus() override {
        bus_close();
        uloop_done();
        failures.clear();
    }

    static void fail(const char* function, int nth = 1, int status = UBUS_STATUS_TIMEOUT) {
        failures[function] = {nth, status};
    }

    // Runs uloop until the condition holds.
    bool comes(const std::function<bool()>& condition) {
        return eventually([&] {
            uloop_run_timeout(10);
            return condition();
        });
    }

    bool daemon_is_seen() {
        return comes(
            [this] { return !told.presences.empty() && told.presences.back() == presence::there; });
    }

    void open() {
        bus_open(&listener);
        ASSERT_TRUE(daemon_is_seen());
    }

    std::vector<int> call_ended() {
        EXPECT_TRUE(comes([this] { return !told.calls.empty(); }));
        return std::exchange(told.calls, {});
    }

    std::optional<broker_process> broker;
    std::optional<forked> daemon;
    heard told;
};

const server toward = {"relay.test", 8443};

TEST_F(SupervisorBus, SeesTheDaemonAndCallsIt) {
    open();
    bus_reload(toward);
    EXPECT_THAT(call_ended(), ElementsAre(UBUS_STATUS_OK));
    bus_stop();
    EXPECT_THAT(call_ended(), ElementsAre(UBUS_STATUS_OK));
}

struct FailingCall {
    const char* function;
    int nth;
};

struct SetUpCall : SupervisorBus, testing::WithParamInterface<FailingCall> {};

TEST_P(SetUpCall, ThatFailsIsMadeAgain) {
    fail(GetParam().function, GetParam().nth);
    open();
    EXPECT_EQ(failures[GetParam().function].countdown, 0) << "it was not called";
    EXPECT_EQ(std::count(told.presences.begin(), told.presences.end(), presence::missing), 0)
        << "a daemon that is there is taken for missing, and would be restarted";
    bus_reload(toward);
    EXPECT_THAT(call_ended(), ElementsAre(UBUS_STATUS_OK));
}

INSTANTIATE_TEST_SUITE_P(
    , SetUpCall,
    testing::Values(FailingCall{"ubus_connect", 1}, FailingCall{"ubus_add_object", 1},
                    FailingCall{"ubus_add_uloop", 1}, FailingCall{"ubus_register_event_handler", 1},
                    FailingCall{"ubus_register_event_handler", 2},
                    FailingCall{"ubus_lookup_id", 1}),
    [](const auto& each) {
        return each.param.function + std::string("_") + std::to_string(each.param.nth);
    });

TEST_F(SupervisorBus, AReconnectThatFailsIsMadeAgain) {
    open();
    told.presences.clear();
    fail("ubus_reconnect", 1, UBUS_STATUS_INVALID_ARGUMENT);
    daemon.reset();
    broker.reset();
    ASSERT_TRUE(comes([this] { return !told.presences.empty(); }));
    EXPECT_EQ(told.presences.back(), presence::no_bus);
    testing::internal::CaptureStderr();
    broker.emplace();
    daemon.emplace([] { return offer(DAEMON_OBJECT); });
    EXPECT_TRUE(daemon_is_seen());
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("the bus refuses the object 'cloud_relay': Invalid argument"));
}

TEST_F(SupervisorBus, ADaemonThatGoesIsMissing) {
    open();
    daemon.reset();
    EXPECT_TRUE(comes([this] { return told.presences.back() == presence::missing; }));
    bus_stop();
    EXPECT_THAT(call_ended(), ElementsAre(UBUS_STATUS_NOT_FOUND));
}

TEST_F(SupervisorBus, ACallThatCannotBeSentEndsWithItsStatus) {
    open();
    fail("ubus_invoke_async", 1, UBUS_STATUS_CONNECTION_FAILED);
    bus_stop();
    EXPECT_THAT(told.calls, testing::IsEmpty()) << "told before bus_stop() returned";
    EXPECT_THAT(call_ended(), ElementsAre(UBUS_STATUS_CONNECTION_FAILED));
}

TEST_F(SupervisorBus, ClosingForgetsAnOpenCall) {
    open();
    daemon->signal(SIGSTOP); // it answers nothing
    bus_stop();
    bus_close();
    uloop_run_timeout(50);
    EXPECT_THAT(told.calls, testing::IsEmpty());
}

// What bus_restart_daemon() writes to standard error.
std::string restarted() {
    testing::internal::CaptureStderr();
    bus_restart_daemon();
    return testing::internal::GetCapturedStderr();
}

TEST_F(SupervisorBus, ProcdIsAskedToRestartTheDaemon) {
    open();
    EXPECT_THAT(restarted(), HasSubstr("no procd is on the bus"));
    forked procd([] { return offer("service"); });
    EXPECT_TRUE(eventually([] {
        return restarted().find("procd was asked to restart cloud_relay_client") !=
               std::string::npos;
    }));
    fail("ubus_invoke");
    EXPECT_THAT(restarted(),
                HasSubstr("procd cannot restart cloud_relay_client: Request timed out"));
}

TEST_F(SupervisorBus, WithoutABusNobodyIsAskedToRestartTheDaemon) {
    EXPECT_THAT(restarted(), HasSubstr("no procd is on the bus"));
}

} // namespace
