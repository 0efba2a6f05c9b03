// Writes that the relay does not take at once: how long they go on, also when the session ends.

#include <atomic>
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

#include "connected_socket.h"
#include "support/failing_calls.h"
#include "support/forced_tls.h"
#include "support/tcp.h"
#include "support/worker_wishes.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::ElementsAre;
using testing::StartsWith;

constexpr char SEND[] = "cloud_socket_send_buf";
constexpr size_t MIB = 1024 * 1024;
constexpr size_t PACKET_SIZE = 8 * MIB;

// Far below the packet's size, so that most of it waits in the write itself.
void narrow(int fd, int option) {
    int size = 256 * 1024;
    EXPECT_EQ(setsockopt(fd, SOL_SOCKET, option, &size, sizeof size), 0);
}

int narrow_listener() {
    int listener = listen_at();
    narrow(listener, SO_RCVBUF); // which its connections inherit
    return listener;
}

// A connected socket with a write under way, on a thread of its own, that the relay does not take.
struct StalledWrite : CloudSocket {
    StalledWrite() {
        relay.accept();
        EXPECT_EQ(connect(relay.port()), 0);
        narrow(socket->sockfd, SO_SNDBUF);
        log.clear();
        writer = std::thread([this] {
            wishes.adopt();
            result = cloud_socket_send_buf(socket, bytes.data(), bytes.size());
            ended = true;
        });
        EXPECT_TRUE(eventually([this] { return is_stalled(); }));
    }
    ~StalledWrite() override {
        if (writer.joinable()) {
            outcome();
        }
    }

    int unsent() const {
        int count = 0;
        EXPECT_EQ(ioctl(socket->sockfd, SIOCOUTQ, &count), 0);
        return count;
    }

    // Neither kernel takes more: ours is full, however seldom the writer runs, and the relay's was
    // offered what is left of its window, which happens up to 400 ms later.
    bool is_stalled() const {
        pollfd room = {.fd = socket->sockfd, .events = POLLOUT, .revents = 0};
        int before = unsent();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return poll(&room, 1, 0) == 0 && unsent() == before;
    }

    // What the write returns.
    int outcome() {
        if (!eventually([this] { return ended.load(); })) {
            ADD_FAILURE() << "the write goes on";
            relay.close();
        }
        writer.join();
        return result;
    }

    tls_peer relay{{.listener = narrow_listener()}};
    const std::string bytes = patterned_bytes(PACKET_SIZE);
    worker_wishes wishes;
    std::atomic<bool> ended = false;
    int result = 0;
    std::thread writer;
};

TEST_F(StalledWrite, GoesOnForAsLongAsTheSessionDoes) {
    moved_clock clock;
    clock.move(3600 * 1000); // below what TCP itself bears, which the test's clock does not move
    std::string received = relay.read_exact(MIB);
    clock.move(3600 * 1000);
    received += relay.read_exact(PACKET_SIZE - MIB);
    EXPECT_EQ(outcome(), 0);
    EXPECT_TRUE(received == bytes);
    EXPECT_EQ(socket->status, CLOUD_SOCKET_CONNECTED);
}

// --- the session is to end, or its worker was let go ---

struct Farewell : StalledWrite, testing::WithParamInterface<std::atomic<int> worker_wishes::*> {
    Farewell() {
        clock.stop(); // the time is the test's alone
        wishes.*GetParam() = 1;
        wait_for_a_look();
    }

    // Waits until the write has looked at the clock and at the relay's progress, unless it is over.
    void wait_for_a_look() {
        int64_t readings = clock.readings();
        EXPECT_TRUE(eventually([&] { return clock.readings() > readings + 2 || ended; }));
    }

    void expect_given_up() {
        EXPECT_EQ(outcome(), 9);
        EXPECT_EQ(socket->status, CLOUD_SOCKET_DISCONNECTED);
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line(SEND, StartsWith("[CRC:] The socket is disconnected"))));
    }

    moved_clock clock;
};

TEST_P(Farewell, OfAPacketThatIsStillTakenIsWhole) {
    std::string received;
    for (size_t second = 0; second < 8; second++) {
        received += relay.read_exact(PACKET_SIZE / 8);
        ASSERT_EQ(received.size(), (second + 1) * PACKET_SIZE / 8)
            << "cut after " << second << " s";
        wait_for_a_look();
        clock.move(1000);
    }
    EXPECT_EQ(outcome(), 0);
    EXPECT_TRUE(received == bytes);
    EXPECT_EQ(socket->status, CLOUD_SOCKET_CONNECTED);
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(Farewell, OfAPacketThatIsNotTakenEndsAfterTwoSeconds) {
    clock.move(2000);
    wait_for_a_look();
    EXPECT_FALSE(ended);
    clock.move(1);
    expect_given_up();
}

TEST_P(Farewell, OfAPacketThatIsTakenNoMoreEndsAfterTwoSeconds) {
    clock.move(1900);
    EXPECT_EQ(relay.read_exact(MIB).size(), MIB);
    EXPECT_TRUE(eventually([this] { return is_stalled(); }));
    clock.move(1900);
    wait_for_a_look();
    EXPECT_FALSE(ended);
    clock.move(101);
    expect_given_up();
}

TEST_P(Farewell, EndsAfterTenSecondsHoweverMuchIsTaken) {
    for (int second = 0; second < 10; second++) {
        ASSERT_EQ(relay.read_exact(MIB / 2).size(), MIB / 2) << "cut after " << second << " s";
        wait_for_a_look();
        clock.move(1000);
    }
    wait_for_a_look();
    EXPECT_FALSE(ended);
    clock.move(1);
    expect_given_up();
}

// Nobody could read it behind half a record.
TEST_P(Farewell, ThatWasCutIsFollowedByNoGoodbye) {
    clock.move(2001);
    expect_given_up();
    forced_tls goodbye("wolfSSL_shutdown", 0, 0);
    cloud_socket_disconnect(socket);
    EXPECT_EQ(goodbye.count(), 0);
    EXPECT_TRUE(is_closed());
}

INSTANTIATE_TEST_SUITE_P(When, Farewell,
                         testing::Values(&worker_wishes::stop, &worker_wishes::letGo),
                         [](const auto& wish) {
                             return wish.param == &worker_wishes::stop ? "TheSessionIsToEnd"
                                                                       : "TheWorkerIsLetGo";
                         });

} // namespace
