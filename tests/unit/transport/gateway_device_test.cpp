#include "transport/gateway_device.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "core/clock.h"
#include "gateway_fixture.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/tcp.h"
#include "support/uplink.h"
#include "support/worker_wishes.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// --- the exported record ---

TEST(GatewayDeviceList, HasTheLayoutThatOtherProgramsExpect) {
    EXPECT_EQ(offsetof(gateway_device_list_t, head), 0u);
    EXPECT_EQ(offsetof(gateway_device_list_t, reserve_gateway_device), sizeof(void*));
    EXPECT_EQ(offsetof(gateway_device_list_t, local_address), sizeof(void*) + 64);
    EXPECT_EQ(offsetof(gateway_device_list_t, count), sizeof(void*) + 64 + 16);
    EXPECT_EQ(offsetof(gateway_device_t, name), 0u);
    EXPECT_EQ(offsetof(gateway_device_t, next), 64u);
}

TEST(GatewayDeviceList, PrintsNothing) {
    gateway_device_list_t list = {};
    log_capture log;
    EXPECT_EQ(print_gateway_device(&list), 0);
    EXPECT_EQ(print_gateway_device(nullptr), -1);
    EXPECT_EQ(log.text(), "");
}

// --- the routing table ---

TEST_F(RouteTable, OneDefaultRouteIsOneGatewayDevice) {
    show_routes(route("eth0") + route("eth0", "00000000", "0001", "000200C0"));
    EXPECT_EQ(get_gateway_device_count(), 1);
    EXPECT_EQ(get_gateway_device(&list), 0);
    EXPECT_THAT(names(list), ElementsAre("eth0"));
    EXPECT_EQ(list.count, 1);
}

TEST_F(RouteTable, IsListedInReverse) {
    show_routes(route("eth0") + route("eth1") + route("wwan0"));
    EXPECT_EQ(get_gateway_device_count(), 3);
    EXPECT_EQ(get_gateway_device(&list), 0);
    EXPECT_THAT(names(list), ElementsAre("wwan0", "eth1", "eth0"));
    EXPECT_EQ(list.count, 3);
}

TEST_F(RouteTable, ARouteThatIsDownOrHasNoGatewayIsNeitherCountedNorListed) {
    show_routes(route("eth0", "010200C0", "0002") + route("eth1", "00000000", "0003") +
                route("eth2", "010200C0", "0007"));
    EXPECT_EQ(get_gateway_device_count(), 1);
    EXPECT_EQ(get_gateway_device(&list), 0);
    EXPECT_THAT(names(list), ElementsAre("eth2"));
}

TEST_F(RouteTable, AnyRouteViaAGatewayCountsSoADeviceMayComeTwice) {
    show_routes(route("eth0") + route("eth0", "020200C0", "0003", "0000A8C0"));
    EXPECT_EQ(get_gateway_device_count(), 2);
    EXPECT_EQ(get_gateway_device(&list), 0);
    EXPECT_THAT(names(list), ElementsAre("eth0", "eth0"));
}

TEST_F(RouteTable, WithoutRowsHasNoDevice) {
    show_routes("");
    EXPECT_EQ(get_gateway_device_count(), 0);
    EXPECT_EQ(get_gateway_device(&list), 0);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.count, 0);
}

TEST_F(RouteTable, ThatCannotBeOpenedHasNoCountAndEmptiesTheList) {
    show_routes(route("eth0"));
    ASSERT_EQ(get_gateway_device(&list), 0);
    remove_proc_file(ROUTES);
    EXPECT_EQ(get_gateway_device_count(), -1);
    EXPECT_EQ(get_gateway_device(&list), -1);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.count, 0);
}

TEST_F(RouteTable, IsReadAnewIntoAListThatHadEntries) {
    show_routes(route("eth0") + route("eth1"));
    ASSERT_EQ(get_gateway_device(&list), 0);
    strcpy(list.reserve_gateway_device, "eth1");
    show_routes(route("wwan0"));
    EXPECT_EQ(get_gateway_device(&list), 0);
    EXPECT_THAT(names(list), ElementsAre("wwan0"));
    EXPECT_EQ(list.count, 1);
    EXPECT_STREQ(list.reserve_gateway_device, "eth1");
}

TEST_F(RouteTable, ANameOf63CharactersFillsItsField) {
    const std::string name(63, 'n');
    show_routes(route(name));
    EXPECT_EQ(get_gateway_device(&list), 0);
    EXPECT_THAT(names(list), ElementsAre(name));
}

TEST_F(RouteTable, GarbageIsReadToItsEnd) {
    for (const std::string& garbage :
         {std::string("\n\n\n"), std::string("eth0\n"), std::string("eth0 zz zz zz\n"),
          std::string(500, 'x') + "\n", std::string("\0\0\0\n", 4), std::string(" \t \t")}) {
        show_routes(garbage);
        EXPECT_EQ(get_gateway_device_count(), 0) << garbage;
        EXPECT_EQ(get_gateway_device(&list), 0);
        EXPECT_THAT(names(list), IsEmpty());
    }
}

TEST_F(RouteTable, NeedsAListToGoTo) {
    EXPECT_EQ(get_gateway_device(nullptr), -1);
}

TEST_F(RouteTable, IsNotListedInPartWhenMemoryIsShort) {
    show_routes(route("eth0") + route("eth1") + route("eth2"));
    for (int nth = 1; nth <= 3; nth++) {
        fail_call failure("calloc", nth);
        EXPECT_EQ(get_gateway_device(&list), -1);
        EXPECT_TRUE(failure.happened());
        EXPECT_EQ(list.head, nullptr);
        EXPECT_EQ(list.count, 0);
    }
}

// --- socket_connect_select_device ---

std::string searched_in_vain(int error) {
    return "[CRC:] open sock failed, errno:" + std::to_string(error) + "\n";
}

TEST_F(SelectDevice, APlainConnectThatSucceedsLeavesOurAddressAndBindsNothing) {
    show_routes(route("eth0") + route("eth1"));
    reserve("eth1");
    int listener = listen_at();
    EXPECT_EQ(connect_to("127.0.0.1", port_of(listener)), 0);
    EXPECT_EQ(local_address(), "127.0.0.1");
    EXPECT_EQ(reserved(), "eth1");
    EXPECT_EQ(bound_device(), "");
    EXPECT_THAT(said(), IsEmpty());
    close(listener);
}

TEST_F(SelectDevice, AnAddressThatCannotBeReadIsLoggedAndTheConnectStands) {
    reserve("eth1");
    int listener = listen_at();
    int port = port_of(listener);
    fail_call failure("getsockname");
    EXPECT_EQ(connect_to("127.0.0.1", port), 0);
    EXPECT_TRUE(failure.happened());
    EXPECT_EQ(local_address(), "192.0.2.7");
    EXPECT_THAT(log.lines(), Contains(error_line(SELECT, "get sock name error\n")));
    close(listener);
}

TEST_F(SelectDevice, RefusesATimeOutBelowOne) {
    for (int64_t timeout : {0, -5}) {
        log.clear();
        EXPECT_EQ(connect_to("127.0.0.1", 443, timeout), -1);
        EXPECT_THAT(log.lines(), ElementsAre(error_line(SELECT, "[CRC:] parameter error")));
    }
}

TEST_F(SelectDevice, WithOneDefaultRouteAFailedPlainConnectFailsAtOnce) {
    show_routes(route("eth0"));
    reserve("eth0");
    int fd = socket->sockfd;
    EXPECT_EQ(connect_to("127.0.0.1", refusing_port()), -1);
    EXPECT_THAT(said(), IsEmpty());
    EXPECT_EQ(reserved(), "eth0");
    EXPECT_EQ(socket->sockfd, fd);
}

TEST_F(SelectDevice, WithoutARoutingTableNothingIsSearched) {
    remove_proc_file(ROUTES);
    EXPECT_EQ(connect_to("127.0.0.1", refusing_port()), -1);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(SelectDevice, TriesTheLastRowsDeviceFirstAndSkipsUnusableOnesOnTheSameSocket) {
    show_routes(route("eth0") + route("eth1"));
    int fd = socket->sockfd;
    EXPECT_EQ(connect_to("127.0.0.1", refusing_port()), -1);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(error_line(CONNECT, testing::_), info_line(SELECT, NO_RESERVED),
                    info_line(SELECT, std::string(TRY) + "eth1\n"), error_line(SELECT, UNUSABLE),
                    info_line(SELECT, std::string(TRY) + "eth0\n"), error_line(SELECT, UNUSABLE),
                    error_line(SELECT, searched_in_vain(ENODEV))));
    EXPECT_EQ(socket->sockfd, fd);
    EXPECT_EQ(reserved(), "");
}

TEST_F(SelectDevice, AReservedDeviceThatIsGoneIsForgottenAndTheListWalkedOnTheSameSocket) {
    show_routes(route("eth0") + route("lo"));
    reserve("wwan0");
    int fd = socket->sockfd;
    int port = refusing_port();
    EXPECT_EQ(connect_to("127.0.0.1", port), -1);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            error_line(CONNECT, testing::_),
            info_line(SELECT, "[CRC:] there is reserve_gateway_device: wwan0\n"),
            error_line(SELECT, "[CRC:] bind device failed\n "),
            error_line(SELECT,
                       "[CRC:] connect_nonblock failed, clear the reserve_gateway_device\n "),
            info_line(SELECT, std::string(TRY) + "lo\n"), info_line(SELECT, BOUND),
            error_line(CONNECT, "[CRC:] select error, result:1, errno:Connection refused"),
            error_line(SELECT, "[CRC:] connect_nonblock failed\n "), info_line(SELECT, RENEW),
            info_line(SELECT, std::string(TRY) + "eth0\n"), error_line(SELECT, UNUSABLE),
            error_line(SELECT, searched_in_vain(ENODEV))));
    EXPECT_EQ(reserved(), "");
    EXPECT_EQ(local_address(), "");
    EXPECT_EQ(socket->sockfd, fd); // the number is free again when the socket is renewed
}

TEST_F(SelectDevice, AReservedDeviceThatConnectsNoMoreIsForgottenAndTheSocketRenewed) {
    show_routes(route("eth0") + route("eth1"));
    reserve("lo");
    EXPECT_EQ(connect_to("127.0.0.1", refusing_port()), -1);
    EXPECT_THAT(said(),
                ElementsAre("[CRC:] there is reserve_gateway_device: lo\n", BOUND,
                            "[CRC:] connect_nonblock failed, clear the reserve_gateway_device!\n ",
                            RENEW, std::string(TRY) + "eth1\n", UNUSABLE,
                            std::string(TRY) + "eth0\n", UNUSABLE, searched_in_vain(ENODEV)));
    EXPECT_EQ(reserved(), "");
    EXPECT_EQ(local_address(), "");
    EXPECT_EQ(bound_device(), "");
    EXPECT_GT(socket->sockfd, 0);
}

TEST_F(SelectDevice, ANameOfMoreThan15CharactersIsCutInTheBindRequest) {
    uplink line("uplink-device-1", 1, 10);
    line.host("203.0.113.1");
    show_routes(route("uplink-device-1-and-more") + route("eth0"));
    reserve("uplink-device-1-and-more");
    int listener = line.listen("203.0.113.1");
    // Refused on the plain way, so that the device is tried.
    line.refuse("203.0.113.9");
    EXPECT_EQ(connect_to("203.0.113.9", 443), -1);
    EXPECT_THAT(said(), Contains(BOUND));
    close(listener);
}

TEST_F(SelectDevice, BindsByARequestOf32BytesThatOpensWith16OfTheName) {
    constexpr size_t NAME_BYTES = 16;
    constexpr size_t REQUEST_BYTES = 32;
    show_routes(route("eth0") + route("uplink-device-1-and-more"));
    int port = refusing_port();
    recorded_options options;
    EXPECT_EQ(connect_to("127.0.0.1", port), -1);
    std::vector<std::string> bound;
    for (const option_call& call : options.calls) {
        EXPECT_EQ(call.level, SOL_SOCKET);
        EXPECT_EQ(call.name, SO_BINDTODEVICE);
        EXPECT_EQ(call.value.size(), REQUEST_BYTES);
        bound.push_back(call.value.substr(0, NAME_BYTES));
    }
    EXPECT_THAT(bound, ElementsAre("uplink-device-1-",
                                   std::string("eth0") + std::string(NAME_BYTES - 4, '\0')));
}

TEST_F(SelectDevice, ASearchThatRunsOutOfMemoryFailsAndCanBeRepeated) {
    show_routes(route("eth0") + route("eth1"));
    int port = refusing_port();
    {
        fail_call failure("calloc");
        EXPECT_EQ(connect_to("127.0.0.1", port), -1);
        EXPECT_TRUE(failure.happened());
    }
    EXPECT_THAT(said(), ElementsAre(NO_RESERVED, "[CRC:] get_gateway_device failed\n "));
    log.clear();
    EXPECT_EQ(connect_to("127.0.0.1", port), -1);
    EXPECT_THAT(said(), Contains(std::string(TRY) + "eth1\n"));
}

TEST_F(SelectDevice, NoNewSocketAfterTheReservedDeviceEndsTheSearch) {
    show_routes(route("eth0") + route("eth1"));
    reserve("lo");
    int port = refusing_port();
    {
        fail_call failure("socket");
        EXPECT_EQ(connect_to("127.0.0.1", port), -1);
        EXPECT_TRUE(failure.happened());
    }
    EXPECT_EQ(socket->sockfd, -1); // not a number that is somebody else's
    EXPECT_THAT(said(),
                ElementsAre("[CRC:] there is reserve_gateway_device: lo\n", BOUND,
                            "[CRC:] connect_nonblock failed, clear the reserve_gateway_device!\n ",
                            RENEW, "[CRC:] [CLOUD-BRD]open sock failed, errno:24\n"));
    socket->sockfd = ::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect_to("127.0.0.1", port), -1); // no lock is left behind
}

// --- the lock that a search without descriptors leaves held ---

// The lock stays held for good, so each test runs in a process of its own.
struct HeldGatewayLock : SelectDevice {
    static constexpr std::chrono::milliseconds PROMPTLY{1000};

    template <class Test>
    static void alone(Test test) {
        EXPECT_EXIT(
            {
                alarm(2 * PATIENCE_MS / 1000); // a wait for the lock without end
                show_routes(route("eth0") + route("lo"));
                test();
                _exit(HasFailure() ? 1 : 0);
            },
            testing::ExitedWithCode(0), "");
    }

    // A search of another worker runs out of descriptors.
    void hold_lock() const {
        std::thread([this] {
            cloud_socket_t* other = cloud_socket_init();
            other->sockfd = ::socket(AF_INET, SOCK_STREAM, 0);
            // With a reserved device the first new socket is still to be had.
            fail_call failure("socket", reserved().empty() ? 1 : 2);
            EXPECT_EQ(connect(other, PATIENCE_MS), -1);
            EXPECT_TRUE(failure.happened());
            EXPECT_EQ(other->sockfd, -1);
            cloud_socket_destroy(other);
        }).join();
    }

    // A worker's search, toward a relay that refuses.
    int connect(cloud_socket_t* connecting, int64_t timeout) const {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return socket_connect_select_device(connecting, &address, timeout);
    }

    // Has a worker search once the lock is held, right before it calls `step`, and waits until it
    // waits for the lock, having logged `last`. Lets it go then: it must give up promptly.
    void expect_search_ends_when_let_go(const char* step, const std::string& last) {
        moved_clock clock;
        worker_wishes wishes;
        std::atomic<bool> ended = false;
        std::thread worker([&] {
            wishes.adopt();
            before_call hook(step, [this] { hold_lock(); });
            EXPECT_EQ(connect(socket, PATIENCE_MS), -1);
            ended = true;
        });
        EXPECT_TRUE(eventually([&] { return !said().empty() && said().back() == last; }));
        int64_t readings = clock.readings();
        EXPECT_TRUE(eventually([&] { return clock.readings() > readings + 2; })) << "it waits";
        EXPECT_FALSE(ended);
        wishes.letGo = 1;
        EXPECT_TRUE(eventually([&] { return ended.load(); }, PROMPTLY));
        worker.join();
    }

    // The milliseconds that such a search takes by itself.
    int64_t search_before(const char* step, int64_t timeout) {
        before_call hook(step, [this] { hold_lock(); });
        int64_t start = cloud_now_ms();
        EXPECT_EQ(connect(socket, timeout), -1);
        return cloud_now_ms() - start;
    }

    const int port = refusing_port();
};

constexpr char BEFORE_TRYING[] = "getsockopt"; // of the plain connect, which fails
constexpr char BEFORE_BINDING[] = "setsockopt";
constexpr char BEFORE_RENEWING[] = "socket";
constexpr char NOT_CONNECTED[] =
    "[CRC:] connect_nonblock failed, clear the reserve_gateway_device!\n ";

TEST_F(HeldGatewayLock, IsLeftBehindByASearchThatRunsOutOfDescriptors) {
    alone([this] {
        hold_lock();
        EXPECT_THAT(said(), ElementsAre(NO_RESERVED, std::string(TRY) + "lo\n", BOUND,
                                        "[CRC:] connect_nonblock failed\n ", RENEW,
                                        searched_in_vain(EMFILE)));
        log.clear();
        EXPECT_EQ(connect(socket, SHORT_MS), -1);
        EXPECT_EQ(errno, EBUSY);
        EXPECT_THAT(said(), IsEmpty());
    });
}

TEST_F(HeldGatewayLock, LetsPlainConnectsGoOn) {
    alone([this] {
        hold_lock();
        int listener = listen_at();
        EXPECT_EQ(connect_to("127.0.0.1", port_of(listener)), 0);
        EXPECT_EQ(local_address(), "127.0.0.1");
    });
}

TEST_F(HeldGatewayLock, IsWaitedForNoLongerThanTheTimeOutBeforeAnyDeviceIsTried) {
    alone([this] {
        EXPECT_GE(search_before(BEFORE_TRYING, SHORT_MS), SHORT_MS);
        EXPECT_EQ(errno, EBUSY);
    });
}

TEST_F(HeldGatewayLock, IsWaitedForNoLongerThanTheTimeOutAfterTheReservedDevice) {
    alone([this] {
        reserve("lo");
        EXPECT_GE(search_before(BEFORE_BINDING, SHORT_MS), 2 * SHORT_MS); // and by the search
        EXPECT_EQ(errno, EBUSY);
        EXPECT_THAT(said().back(), RENEW);
    });
}

TEST_F(HeldGatewayLock, IsWaitedForNoLongerThanTheTimeOutByTheSearch) {
    alone([this] {
        reserve("lo");
        EXPECT_GE(search_before(BEFORE_RENEWING, SHORT_MS), SHORT_MS);
        EXPECT_EQ(errno, EBUSY);
        EXPECT_GE(socket->sockfd, 0);
    });
}

TEST_F(HeldGatewayLock, IsNotWaitedForByAWorkerThatIsLetGoBeforeAnyDeviceIsTried) {
    alone([this] {
        expect_search_ends_when_let_go(BEFORE_TRYING, searched_in_vain(EMFILE)); // of the other
    });
}

TEST_F(HeldGatewayLock, IsNotWaitedForByAWorkerThatIsLetGoAfterTheReservedDevice) {
    alone([this] {
        reserve("lo");
        expect_search_ends_when_let_go(BEFORE_BINDING, NOT_CONNECTED);
    });
}

TEST_F(HeldGatewayLock, IsNotWaitedForByAWorkerThatIsLetGoInItsSearch) {
    alone([this] {
        reserve("lo");
        expect_search_ends_when_let_go(BEFORE_RENEWING, searched_in_vain(EMFILE));
    });
}

// Entries of a folder of /proc, this look's own included.
size_t entries(const char* folder) {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        count += !entry.path().empty();
    }
    return count;
}

TEST_F(HeldGatewayLock, LeavesNothingOfAWorkerThatGaveUp) {
    alone([this] {
        hold_lock();
        cloud_socket_t* tried = cloud_socket_init();
        size_t descriptors = entries("/proc/self/fd");
        size_t threads = entries("/proc/self/task");
        std::thread([&] {
            EXPECT_EQ(cloud_socket_connect(tried, "127.0.0.1", port, SHORT_MS), -1);
        }).join();
        EXPECT_EQ(tried->sockfd, -1);
        EXPECT_EQ(tried->CTX, nullptr);
        EXPECT_EQ(tried->SSL, nullptr);
        EXPECT_EQ(entries("/proc/self/fd"), descriptors);
        EXPECT_TRUE(eventually([&] { return entries("/proc/self/task") == threads; }));
        cloud_socket_destroy(tried);
    });
}

} // namespace
