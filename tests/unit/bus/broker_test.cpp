// The broker's rules, seen from sockets of clients. Load, abuse and the tool's output have a suite
// of their own in tests/system/bus.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "broker_process.h"
#include "deadline.h"
#include "raw_peer.h"
#include "support/lacking.h"

namespace {

constexpr int svc_signature = 6;
constexpr const char* one_method = R"({"go": {"fast": 7}})";

class Broker : public testing::Test {
protected:
    // A client with an object of its own.
    struct Owner {
        RawPeer peer;
        uint32_t client;
        uint32_t object = 0;

        Owner(const char* socket, const char* path) : peer(socket), client(peer.greeted()) {
            Body body;
            body.text(2, path).table(svc_signature, one_method);
            object = peer.ask(UBUS_MSG_ADD_OBJECT, body).front().number(3);
        }
        int32_t remove() {
            return peer.ask_status(UBUS_MSG_REMOVE_OBJECT, Body().number(3, object));
        }
    };

    RawPeer caller() {
        RawPeer peer(m_broker.socket());
        peer.greeted();
        return peer;
    }
    Owner owner(const char* path) { return Owner(m_broker.socket(), path); }

    static Bytes invoke(uint16_t seq, uint32_t object) {
        Body body;
        body.number(3, object).text(4, "go").table(7, "{}");
        return encode(UBUS_MSG_INVOKE, seq, object, body.encoded());
    }

    BrokerProcess m_broker;
};

TEST_F(Broker, DrawsIdsAboveItsOwn) {
    const Owner svc = owner("svc");
    EXPECT_GT(svc.client, 1024U);
    EXPECT_GT(svc.object, 1024U);
}

TEST_F(Broker, SendsAPingBack) {
    RawPeer peer = caller();
    Body body;
    body.text(2, "hello");
    const auto answer = peer.ask(UBUS_MSG_PING, body, 77);
    ASSERT_EQ(answer.size(), 2U);
    EXPECT_EQ(answer[0].type, UBUS_MSG_DATA);
    EXPECT_EQ(answer[0].text(2), "hello");
    EXPECT_EQ(answer[1].status(), UBUS_STATUS_OK);
}

TEST_F(Broker, ListsInNameOrder) {
    const Owner b = owner("b");
    const Owner a = owner("a");
    const Owner c = owner("c");
    const auto answer = caller().ask(UBUS_MSG_LOOKUP, Body());
    ASSERT_EQ(answer.size(), 4U);
    EXPECT_EQ(answer[0].text(2) + answer[1].text(2) + answer[2].text(2), "abc");
    EXPECT_EQ(answer[0].number(3), a.object);
}

TEST_F(Broker, DoesNotListWhatHasNoType) {
    RawPeer peer = caller();
    EXPECT_EQ(peer.ask_status(UBUS_MSG_ADD_OBJECT, Body().text(2, "bare")), UBUS_STATUS_OK);
    EXPECT_EQ(peer.ask(UBUS_MSG_LOOKUP, Body()).size(), 1U);
    EXPECT_EQ(peer.ask_status(UBUS_MSG_LOOKUP, Body().text(2, "bare")), UBUS_STATUS_NOT_FOUND);
}

TEST_F(Broker, KeepsATypeWhileAnObjectUsesIt) {
    Owner first = owner("first");
    RawPeer other = caller();
    const uint32_t type = other.ask(UBUS_MSG_LOOKUP, Body()).front().number(5);
    Body second;
    second.text(2, "second").number(5, type);
    const auto added = other.ask(UBUS_MSG_ADD_OBJECT, second);
    EXPECT_EQ(added.back().status(), UBUS_STATUS_OK);
    EXPECT_EQ(added.front().attributes.count(5), 0U) << "the client told the type";

    EXPECT_EQ(first.remove(), UBUS_STATUS_OK);
    const auto removed =
        other.ask(UBUS_MSG_REMOVE_OBJECT, Body().number(3, added.front().number(3)));
    EXPECT_EQ(removed.front().number(5), type) << "the type goes with its last object";
    EXPECT_EQ(other.ask_status(UBUS_MSG_ADD_OBJECT, second), UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(Broker, RefusesATakenPathAndABadSignature) {
    const Owner svc = owner("svc");
    RawPeer peer = caller();
    EXPECT_EQ(peer.ask_status(UBUS_MSG_ADD_OBJECT, Body().text(2, "svc")),
              UBUS_STATUS_INVALID_ARGUMENT);
    for (const char* signature :
         {R"({"go": "table"})", R"({"go": {"fast": "text"}})", R"({"go": {"fast": 99}})",
          R"({"go": [7]})", R"({"go": {"fast": -1}})"}) {
        Body body;
        body.text(2, "other").table(svc_signature, signature);
        EXPECT_EQ(peer.ask_status(UBUS_MSG_ADD_OBJECT, body), UBUS_STATUS_INVALID_ARGUMENT)
            << signature;
    }
    EXPECT_EQ(peer.ask_status(UBUS_MSG_LOOKUP, Body().text(2, "other")), UBUS_STATUS_NOT_FOUND);
}

// A message that tells of it would be one that its receiver must refuse.
TEST_F(Broker, RefusesAnObjectThatNoListCouldHold) {
    RawPeer peer = caller();
    const std::string longest((1 << 20) - 40, 'p');
    EXPECT_EQ(peer.ask_status(UBUS_MSG_ADD_OBJECT, Body().text(2, longest)),
              UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(peer.ask_status(UBUS_MSG_ADD_OBJECT, Body().text(2, longest.substr(200))),
              UBUS_STATUS_OK);
}

TEST_F(Broker, LetsOnlyTheOwnerRemove) {
    Owner svc = owner("svc");
    RawPeer peer = caller();
    EXPECT_EQ(peer.ask_status(UBUS_MSG_REMOVE_OBJECT, Body().number(3, svc.object)),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(peer.ask_status(UBUS_MSG_REMOVE_OBJECT, Body().number(3, 5000)),
              UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(peer.ask_status(UBUS_MSG_REMOVE_OBJECT, Body()), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(svc.remove(), UBUS_STATUS_OK);
}

TEST_F(Broker, TellsAWrongAttributeFromAMissingObject) {
    RawPeer peer = caller();
    EXPECT_EQ(peer.ask_status(UBUS_MSG_INVOKE, Body().number(3, 5000)),
              UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(peer.ask_status(UBUS_MSG_INVOKE, Body().number(3, 5000).text(4, "go")),
              UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(peer.ask_status(UBUS_MSG_ADD_OBJECT, Body().bytes(2, {'n', 'o', 'n', 'u', 'l'})),
              UBUS_STATUS_INVALID_ARGUMENT);
}

class TypeOfMessage : public Broker, public testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(TypeOfMessage, ThatIsNotServedGetsItsStatus) {
    EXPECT_EQ(caller().ask_status(GetParam().first, Body()), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(All, TypeOfMessage,
                         testing::Values(std::pair(0, 1), std::pair(8, 8), std::pair(9, 8),
                                         std::pair(10, 8), std::pair(11, 8), std::pair(12, 1),
                                         std::pair(255, 1)));

TEST_F(Broker, PassesDataAndStatusOfAnOwnerToItsCaller) {
    Owner svc = owner("svc");
    RawPeer peer(m_broker.socket());
    const uint32_t caller_id = peer.greeted();
    peer.send(invoke(9, svc.object));

    const auto call = svc.peer.receive();
    ASSERT_TRUE(call);
    EXPECT_EQ(call->type, UBUS_MSG_INVOKE);
    EXPECT_EQ(call->seq, 9);
    EXPECT_EQ(call->peer, caller_id);
    EXPECT_EQ(call->text(4), "go");

    Body data;
    data.number(3, svc.object).table(7, R"({"x": 1})");
    svc.peer.send(encode(UBUS_MSG_DATA, 9, caller_id, data.encoded()));
    Body status;
    status.number(1, 0xfffffff0).number(3, svc.object);
    svc.peer.send(encode(UBUS_MSG_STATUS, 9, caller_id, status.encoded()));

    const auto first = peer.receive();
    const auto second = peer.receive();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->type, UBUS_MSG_DATA);
    EXPECT_EQ(first->peer, svc.object);
    EXPECT_EQ(second->type, UBUS_MSG_STATUS);
    EXPECT_EQ(second->status(), -16);
}

TEST_F(Broker, DropsAnswersAboutSomebodyElsesObject) {
    Owner svc = owner("svc");
    Owner rogue = owner("rogue");
    RawPeer peer(m_broker.socket());
    const uint32_t caller_id = peer.greeted();
    peer.send(invoke(9, svc.object));
    ASSERT_TRUE(svc.peer.receive());

    Body forged;
    forged.number(1, 0).number(3, svc.object);
    rogue.peer.send(encode(UBUS_MSG_STATUS, 9, caller_id, forged.encoded()));
    EXPECT_EQ(rogue.peer.ask_status(UBUS_MSG_PING, Body()), UBUS_STATUS_OK); // is handled by now
    EXPECT_EQ(peer.ask_status(UBUS_MSG_PING, Body(), 3), UBUS_STATUS_OK);
    Body status;
    status.number(1, 42).number(3, svc.object);
    svc.peer.send(encode(UBUS_MSG_STATUS, 9, caller_id, status.encoded()));
    const auto answer = peer.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status(), 42);
}

TEST_F(Broker, EndsACallWhoseOwnerGoes) {
    Owner svc = owner("svc");
    RawPeer peer = caller();
    peer.send(invoke(9, svc.object));
    ASSERT_TRUE(svc.peer.receive());
    svc.peer.close();
    const auto answer = peer.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, UBUS_MSG_STATUS);
    EXPECT_EQ(answer->seq, 9);
    EXPECT_EQ(answer->peer, svc.object);
    EXPECT_EQ(answer->status(), UBUS_STATUS_TIMEOUT);
}

TEST_F(Broker, EndsACallWhoseObjectIsRemoved) {
    Owner svc = owner("svc");
    RawPeer peer = caller();
    peer.send(invoke(9, svc.object));
    ASSERT_TRUE(svc.peer.receive());
    EXPECT_EQ(svc.remove(), UBUS_STATUS_OK);
    const auto answer = peer.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status(), UBUS_STATUS_TIMEOUT);
}

TEST_F(Broker, HandlesWhatAClientLeftBehindWhenItWent) {
    Owner svc = owner("svc");
    {
        RawPeer peer = caller();
        for (uint16_t seq = 1; seq <= 20; seq++) {
            peer.send(encode(UBUS_MSG_PING, seq, 0, Body().encoded())); // nobody takes the answer
            peer.send(invoke(seq, svc.object));
        }
    }
    for (uint16_t seq = 1; seq <= 20; seq++) {
        const auto call = svc.peer.receive();
        ASSERT_TRUE(call);
        EXPECT_EQ(call->seq, seq);
    }
}

class Hostile : public Broker, public testing::WithParamInterface<const char*> {};

TEST_P(Hostile, BytesEndTheirConnectionAndNoOther) {
    RawPeer bystander = caller();
    RawPeer peer = caller();
    peer.send(from_hex(GetParam()));
    EXPECT_TRUE(peer.is_closed_by_peer());
    EXPECT_EQ(bystander.ask_status(UBUS_MSG_PING, Body()), UBUS_STATUS_OK);
}

INSTANTIATE_TEST_SUITE_P(All, Hostile,
                         testing::Values("010400010000000000000004", // another version
                                         "000400010000000000100004", // a body above 1 MiB
                                         "000400010000000000000002", // a body below its head
                                         "00040001000000000000000c0300000c00000001",   // overlong
                                         "00040001000000000000000c0300000000000001")); // empty

// Runs a check in a process of another user. Its exit status, -1 after a death by signal.
int as_nobody(const std::function<int()>& check) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(setgid(65534) == 0 && setuid(65534) == 0 ? check() : 99);
    }
    int status = 0;
    EXPECT_EQ(TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Broker, LetsOthersThanRootSeeAndDoNothing) {
    if (geteuid() != 0) {
        SKIP_LACKING("root, to become somebody else");
    }
    const Owner svc = owner("svc");
    EXPECT_EQ(
        as_nobody([&] {
            RawPeer peer = caller();
            Body call;
            call.number(3, svc.object).text(4, "go").table(7, "{}");
            if (peer.ask_status(UBUS_MSG_INVOKE, call) != UBUS_STATUS_PERMISSION_DENIED) {
                return 1;
            }
            if (peer.ask_status(UBUS_MSG_ADD_OBJECT, Body()) != UBUS_STATUS_PERMISSION_DENIED) {
                return 2;
            }
            if (peer.ask_status(UBUS_MSG_LOOKUP, Body().text(2, "svc")) != UBUS_STATUS_NOT_FOUND) {
                return 3;
            }
            return peer.ask(UBUS_MSG_LOOKUP, Body()).size() == 1 ? 0 : 4;
        }),
        0);
}

TEST(BrokerSocket, IsOpenToEverybodyAndRemovedAtTheEnd) {
    BrokerProcess broker;
    struct stat present;
    ASSERT_EQ(lstat(broker.socket(), &present), 0);
    EXPECT_EQ(present.st_mode & 0777, 0666U);
    broker.stop();
    EXPECT_NE(lstat(broker.socket(), &present), 0);
}

TEST(BrokerSocket, IsRemovedAlsoWhenTheEndIsAskedForBeforeTheBrokerRuns) {
    BrokerProcess broker;
    broker.stop();
    EXPECT_TRUE(broker.ends_at_once_when_asked_before());
    struct stat present;
    EXPECT_NE(lstat(broker.socket(), &present), 0);
}

TEST(BrokerSocket, IsTakenOverFromABrokerThatCrashed) {
    BrokerProcess broker;
    broker.kill();
    broker.start();
    RawPeer peer(broker.socket());
    EXPECT_NE(peer.greeted(), 0U);
}

} // namespace
