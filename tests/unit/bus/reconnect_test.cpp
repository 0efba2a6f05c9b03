// Loss of the connection, and the way back.

#include <csignal>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>

#include "client_fixture.h"
#include "raw_peer.h"

namespace {

int losses;

void count_loss(ubus_context*) {
    losses++;
}

class Reconnect : public Client {
protected:
    void SetUp() override {
        Client::SetUp();
        losses = 0;
        ctx->connection_lost = count_loss;
        m_object.name = "own";
        m_object.type = &m_type;
        m_object.methods = m_methods;
        m_object.n_methods = 1;
    }

    static int answer(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
        return 33;
    }

    // Whether somebody else can call our object under its name.
    int call_own() {
        ubus_context* other = ubus_connect(broker.socket());
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(other, "own", &id), UBUS_STATUS_OK);
        ubus_add_uloop(other);
        AsyncCall call;
        EXPECT_EQ(call.start(other, id, "answer"), 0);
        EXPECT_TRUE(run_uloop_until([&] { return call.completed > 0; }));
        ubus_free(other);
        return call.status;
    }

    bool loss_is_told() {
        return run_uloop_until([] { return losses > 0; });
    }

    ubus_method m_methods[1] = {UBUS_METHOD_NOARG("answer", answer)};
    ubus_object_type m_type = UBUS_OBJECT_TYPE("own", m_methods);
    ubus_object m_object = {};
};

TEST_F(Reconnect, LossIsToldOnceAndRequestsEndWithIt) {
    const ServiceProcess svc(broker.socket(), offer_svc);
    ubus_add_uloop(ctx);
    AsyncCall waiting;
    ASSERT_EQ(waiting.start(ctx, find("svc"), "silent"), 0);
    broker.kill();
    ASSERT_TRUE(loss_is_told());
    EXPECT_EQ(waiting.completed, 1);
    EXPECT_EQ(waiting.status, UBUS_STATUS_TIMEOUT);
    EXPECT_TRUE(ctx->sock.eof);
    EXPECT_FALSE(ctx->sock.registered);
    uloop_run_timeout(20);
    EXPECT_EQ(losses, 1);
}

TEST_F(Reconnect, ABlockingCallEndsWithTheLossThatUloopTellsLater) {
    RawPeer owner(broker.socket());
    owner.greeted();
    const uint32_t object = owner.ask(UBUS_MSG_ADD_OBJECT, Body()).front().number(3);
    ubus_add_uloop(ctx);
    std::thread killer([this, &owner] {
        const auto call = owner.receive(); // it is on its way
        EXPECT_TRUE(call && call->type == UBUS_MSG_INVOKE);
        broker.kill();
    });
    EXPECT_EQ(ubus_invoke(ctx, object, "silent", nullptr, nullptr, nullptr, 0),
              UBUS_STATUS_TIMEOUT);
    killer.join();
    EXPECT_EQ(losses, 0);
    EXPECT_TRUE(loss_is_told());
}

TEST_F(Reconnect, CallsFailWithoutAConnection) {
    broker.kill();
    ubus_add_uloop(ctx);
    ASSERT_TRUE(loss_is_told());
    uint32_t id;
    EXPECT_EQ(ubus_lookup_id(ctx, "svc", &id), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_add_object(ctx, &m_object), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_send_event(ctx, "x", nullptr), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_reconnect(ctx, broker.socket()), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_lookup_id(ctx, "svc", &id), UBUS_STATUS_CONNECTION_FAILED);
}

TEST_F(Reconnect, RegistersObjectsAnew) {
    ASSERT_EQ(ubus_add_object(ctx, &m_object), UBUS_STATUS_OK);
    ubus_add_uloop(ctx);
    const uint32_t old_id = m_object.id;
    const uint32_t old_type = m_type.id;
    broker.kill();
    ASSERT_TRUE(loss_is_told());
    EXPECT_EQ(ubus_reconnect(ctx, broker.socket()), UBUS_STATUS_CONNECTION_FAILED);
    broker.start();
    EXPECT_EQ(ubus_reconnect(ctx, broker.socket()), UBUS_STATUS_OK);
    EXPECT_NE(m_object.id, old_id);
    EXPECT_NE(m_type.id, old_type);
    EXPECT_FALSE(ctx->sock.registered);
    ubus_add_uloop(ctx);
    EXPECT_EQ(call_own(), 33);
    EXPECT_EQ(losses, 1);
}

TEST_F(Reconnect, LeavesALivingConnection) {
    ASSERT_EQ(ubus_add_object(ctx, &m_object), UBUS_STATUS_OK);
    ubus_add_uloop(ctx);
    const uint32_t old_client = ctx->local_id;
    EXPECT_TRUE(wait_until([this] { return ubus_reconnect(ctx, broker.socket()) == 0; }));
    EXPECT_NE(ctx->local_id, old_client);
    ubus_add_uloop(ctx);
    EXPECT_EQ(call_own(), 33);
    EXPECT_EQ(losses, 0);
}

TEST_F(Reconnect, KeepsAnObjectWhoseNameIsTakenForTheNextAttempt) {
    ASSERT_EQ(ubus_add_object(ctx, &m_object), UBUS_STATUS_OK);
    broker.kill();
    broker.start();
    RawPeer squatter(broker.socket());
    squatter.greeted();
    ASSERT_EQ(squatter.ask_status(UBUS_MSG_ADD_OBJECT, Body().text(2, "own")), 0);
    EXPECT_EQ(ubus_reconnect(ctx, broker.socket()), UBUS_STATUS_INVALID_ARGUMENT);
    squatter.close();
    EXPECT_TRUE(wait_until([this] { return ubus_reconnect(ctx, broker.socket()) == 0; }));
    ubus_add_uloop(ctx);
    EXPECT_EQ(call_own(), 33);
}

// The daemon's way: reconnect in the callback, and again from a timer until it works.
struct Retry {
    uloop_timeout timer;
    ubus_context* ctx;
    const char* socket;
    bool connected;
} retry;

void try_again(ubus_context* ctx) {
    losses++;
    if (ubus_reconnect(ctx, retry.socket) != 0) {
        uloop_timeout_set(&retry.timer, 10);
        return;
    }
    ubus_add_uloop(ctx);
    retry.connected = true;
}

TEST_F(Reconnect, WorksFromTheCallbackAndFromATimer) {
    ASSERT_EQ(ubus_add_object(ctx, &m_object), UBUS_STATUS_OK);
    ubus_add_uloop(ctx);
    retry = {};
    retry.timer.cb = [](uloop_timeout*) { try_again(retry.ctx); };
    retry.ctx = ctx;
    retry.socket = broker.socket();
    ctx->connection_lost = try_again;
    broker.kill();
    ASSERT_TRUE(run_uloop_until([] { return losses >= 3; }));
    broker.start();
    ASSERT_TRUE(run_uloop_until([] { return retry.connected; }));
    EXPECT_EQ(call_own(), 33);
}

TEST_F(Reconnect, TheContextMayBeFreedInTheCallback) {
    ubus_add_uloop(ctx);
    ctx->connection_lost = [](ubus_context* lost) {
        losses++;
        ubus_free(lost);
    };
    broker.kill();
    EXPECT_TRUE(loss_is_told());
    ctx = nullptr;
}

TEST(ConnectionLost, EndsUloopUnlessTheProgramSaysOtherwise) {
    BrokerProcess broker;
    ubus_context* ctx = ubus_connect(broker.socket());
    ASSERT_NE(ctx, nullptr);
    ubus_add_uloop(ctx);
    broker.kill();
    uloop_run();
    EXPECT_TRUE(ctx->sock.eof);
    ubus_free(ctx);
    uloop_done();
}

// Plays a broker that sends `bytes` after HELLO and keeps the line open.
class NonsenseBroker {
public:
    explicit NonsenseBroker(Bytes bytes) : m_bytes(std::move(bytes)) {
        char folder[] = "/tmp/bus.XXXXXX";
        m_folder = mkdtemp(folder);
        m_socket = m_folder + "/s";
        m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, m_socket.c_str(), sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(m_listener, 1), 0);
        m_thread = std::thread([this] {
            RawPeer client(accept(m_listener, nullptr, nullptr));
            client.send(m_bytes);
            client.is_closed_by_peer();
        });
    }
    ~NonsenseBroker() {
        m_thread.join();
        close(m_listener);
        unlink(m_socket.c_str());
        rmdir(m_folder.c_str());
    }
    const char* socket() const { return m_socket.c_str(); }

private:
    Bytes m_bytes;
    std::string m_folder;
    std::string m_socket;
    int m_listener;
    std::thread m_thread;
};

class BadHello : public testing::TestWithParam<const char*> {};

TEST_P(BadHello, IsNoConnection) {
    NonsenseBroker broker(from_hex(GetParam()));
    EXPECT_EQ(ubus_connect(broker.socket()), nullptr);
    uloop_done();
}

INSTANTIATE_TEST_SUITE_P(All, BadHello,
                         testing::Values("010000000000000500000004", // another version
                                         "000200000000000500000004", // another type
                                         "00000000000000050000000c", // with a body
                                         "000000000000000500000000"));

class BadBytes : public testing::TestWithParam<const char*> {};

// The first request has number 1.
TEST_P(BadBytes, EndTheConnectionOrTheRequest) {
    NonsenseBroker broker(from_hex(std::string("000000000000000500000004") + GetParam()));
    ubus_context* ctx = ubus_connect(broker.socket());
    ASSERT_NE(ctx, nullptr);
    uint32_t id = 0;
    const int status = ubus_lookup_id(ctx, "svc", &id);
    EXPECT_TRUE(status == UBUS_STATUS_TIMEOUT || status == UBUS_STATUS_PARSE_ERROR) << status;
    EXPECT_EQ(id, 0U);
    ubus_free(ctx);
    uloop_done();
}

INSTANTIATE_TEST_SUITE_P(
    All, BadBytes,
    testing::Values("010100010000000000000004",                        // another version
                    "000100010000000000200000",                        // 2 MiB to come
                    "000100010000000000000004",                        // a status without one
                    "00010001000000000000000c0100000600000000",        // one of 2 bytes
                    "00020001000000000000000c0200000861626364",        // a path without end
                    "00020001000000000000000c03ffffff00000000",        // an endless id
                    "0002000100000000000000140700001085000fff00000000" // a field that does not fit
                    "00000000"));

} // namespace
