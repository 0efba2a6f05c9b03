// The control object on a real bus: a broker process, the daemon's event loop in a process of its
// own, and this process as the one who calls.

#include "control/start_up.h"
#include "control/ubus_control.h"

#include <chrono>
#include <fcntl.h>
#include <sys/stat.h>

#include "bus_peers.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/tcp.h"
#include "task/task_controller.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;

namespace {

const bool isPrivate = private_namespaces();

using steady = std::chrono::steady_clock;

constexpr int MISSING_ARGUMENT = -1;
constexpr char RETRY_MESSAGE[] = "failed to reconnect, trying again in 2 seconds\n";

ubus_connect_handler_t connection_lost_of_freed = nullptr;
int signalBeforeLoop = 0; // raised right before the event loop begins to run
int unwatched = 0;        // which of the next calls of uloop_fd_add fails, from 1
constexpr char SOCKET_IS_WATCHED[] = "a socket is watched"; // printed when one was to fail

int run_ubus_init() {
    return ubus_init() == 0 ? 0 : 1;
}

int run_control_side() {
    swCloudRelayClientInit();
    return 0;
}

} // namespace

extern "C" void __real_ubus_free(ubus_context* context);
extern "C" void __wrap_ubus_free(ubus_context* context);
extern "C" int __real_uloop_run_timeout(int timeout);
extern "C" int __wrap_uloop_run_timeout(int timeout);
extern "C" int __real_uloop_fd_add(uloop_fd* socket, unsigned flags);
extern "C" int __wrap_uloop_fd_add(uloop_fd* socket, unsigned flags);

// Fails as when epoll has no room.
extern "C" int __wrap_uloop_fd_add(uloop_fd* socket, unsigned flags) {
    static const bool isTold = unwatched > 0;
    if (unwatched > 0 && --unwatched == 0) {
        return -1;
    }
    int result = __real_uloop_fd_add(socket, flags);
    if (isTold) {
        puts(SOCKET_IS_WATCHED);
    }
    return result;
}

// Remembers the callback that nobody else can reach.
extern "C" void __wrap_ubus_free(ubus_context* context) {
    if (context != nullptr) {
        connection_lost_of_freed = context->connection_lost;
    }
    __real_ubus_free(context);
}

extern "C" int __wrap_uloop_run_timeout(int timeout) {
    if (signalBeforeLoop != 0) {
        raise(signalBeforeLoop);
    }
    return __real_uloop_run_timeout(timeout);
}

namespace {

// In the daemon's process: what it registered on the bus, and its handler of the bus's loss.
const ubus_object* registeredObject = nullptr;
bool marksLosses = false; // set before the daemon registers
ubus_connect_handler_t connection_lost_of_daemon = nullptr;
constexpr char A_MOMENT_AFTER_THE_LOSS[] = "a moment after the loss";

// Has the event loop print a line after a tenth of a second. The loop serves its timers in their
// order, so this line comes before all that the daemon puts off for longer, on a busy machine too.
void mark_loss(ubus_context* context) {
    constexpr int MOMENT_MS = 100;
    static uloop_timeout mark = {};
    mark.cb = [](uloop_timeout*) { puts(A_MOMENT_AFTER_THE_LOSS); };
    uloop_timeout_set(&mark, MOMENT_MS);
    connection_lost_of_daemon(context);
}

} // namespace

extern "C" int __real_ubus_add_object(ubus_context* context, ubus_object* object);
extern "C" int __wrap_ubus_add_object(ubus_context* context, ubus_object* object);

extern "C" int __wrap_ubus_add_object(ubus_context* context, ubus_object* object) {
    registeredObject = object;
    if (marksLosses) {
        connection_lost_of_daemon = std::exchange(context->connection_lost, mark_loss);
    }
    return __real_ubus_add_object(context, object);
}

namespace {

class UbusControlTest : public testing::Test {
protected:
    void SetUp() override { unlink(BUS_SOCKET); }

    // Broker, daemon in its loop, and a caller that sees the daemon's object.
    void start(const std::function<int()>& body = run_control_side) {
        broker.emplace();
        daemon.emplace(body);
        connect();
        // One call may be served while the daemon still registers, the next only in its loop.
        EXPECT_EQ(client->call("stop"), 0);
        EXPECT_EQ(client->call("stop"), 0);
        log.clear();
    }

    void connect() {
        client.reset();
        client.emplace();
        ASSERT_TRUE(eventually([&] { return client->sees_object(); }));
    }

    log_capture log;
    std::optional<broker_process> broker;
    std::optional<forked> daemon;
    std::optional<bus_client> client;
};

testing::Matcher<log_line> retry_line() {
    return error_line("ubus_connection_lost", RETRY_MESSAGE);
}

TEST_F(UbusControlTest, FailsWithItsOddMessageWhenThereIsNoBroker) {
    daemon.emplace(run_ubus_init);
    EXPECT_EQ(daemon->exit_code(), 1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("ubus_init", "static struct ubus_context "
                                                                 "*l_ubus_common_ctx = NULL;")));
}

TEST_F(UbusControlTest, FailsWhenTheObjectNameIsTaken) {
    broker.emplace();
    forked first(run_ubus_init);
    daemon.emplace([] {
        // The other daemon may be the later one: wait for its object.
        bus_client here;
        return eventually([&] { return here.sees_object(); }) ? run_ubus_init() : 2;
    });
    EXPECT_EQ(daemon->exit_code(), 1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("ubus_add_obj",
                                                    "add object(cloud_relayc) failed ret:2.\n")));
}

TEST_F(UbusControlTest, ReturnsZeroAndLeavesTheBusWhenTheLoopIsEnded) {
    start(run_ubus_init);
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->exit_code(), 0);
    EXPECT_TRUE(eventually([&] { return !client->sees_object(); }));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(UbusControlTest, EndsTheLoopForASignalThatCameBeforeItRan) {
    broker.emplace();
    for (int number : {SIGTERM, SIGINT}) {
        daemon.emplace([number] {
            signal(number, SIG_DFL); // a shell has what it runs behind it ignore SIGINT
            signalBeforeLoop = number;
            return run_ubus_init();
        });
        EXPECT_EQ(daemon->exit_code(), 0);
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(UbusControlTest, OffersReloadStopAndDbgWithTheirArguments) {
    start();
    EXPECT_THAT(client->methods(),
                ElementsAre(Pair("reload", ElementsAre(Pair("address", BLOBMSG_TYPE_STRING),
                                                       Pair("port", BLOBMSG_TYPE_INT32))),
                            Pair("stop", IsEmpty()), Pair("dbg", IsEmpty())));
}

// The type's name does not go over the bus.
TEST_F(UbusControlTest, RegistersItsObjectUnderItsTypesName) {
    start([] {
        int result = run_ubus_init();
        printf("%s of type %s\n", registeredObject->name, registeredObject->type->name);
        return result;
    });
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->exit_code(), 0);
    EXPECT_EQ(log.text(), "cloud_relayc of type cloud_relayc_handle\n");
}

TEST_F(UbusControlTest, ReloadRefusesMissingArguments) {
    start();
    arguments none;
    arguments onlyAddress;
    onlyAddress.text("address", "127.0.0.1");
    arguments onlyPort;
    onlyPort.number("port", 4433);
    arguments otherNames;
    otherNames.text("Address", "127.0.0.1").number("prt", 4433);
    size_t refused = 0;
    for (arguments* with : {&none, &onlyAddress, &onlyPort, &otherNames}) {
        EXPECT_EQ(client->call("reload", *with), MISSING_ARGUMENT);
        refused++;
        EXPECT_EQ(log.count(error_line("reload_handle", "g_para is NULL.\n")), refused);
    }
    EXPECT_THAT(log.lines(), SizeIs(refused)) << "no session was started";
}

TEST_F(UbusControlTest, ReloadRefusesArgumentsOfOtherTypes) {
    start();
    arguments portAsText;
    portAsText.text("address", "127.0.0.1").text("port", "4433");
    arguments addressAsNumber;
    addressAsNumber.number("address", 0x7F000001).number("port", 4433);
    arguments longPort;
    longPort.text("address", "127.0.0.1").long_number("port", 4433);
    size_t refused = 0;
    for (arguments* with : {&portAsText, &addressAsNumber, &longPort}) {
        EXPECT_EQ(client->call("reload", *with), MISSING_ARGUMENT);
        refused++;
        EXPECT_EQ(log.count(error_line("reload_handle", "g_para is NULL.\n")), refused);
    }
    EXPECT_THAT(log.lines(), SizeIs(refused)) << "no session was started";
}

TEST_F(UbusControlTest, ReloadIgnoresArgumentsThatItDoesNotKnow) {
    start();
    arguments with;
    with.text("address", "127.0.0.1").text("comment", "none").number("port", 0);
    EXPECT_EQ(client->call("reload", with), 0);
}

TEST_F(UbusControlTest, ReloadWithPortZeroWhileIdleDisconnectsNothing) {
    start();
    EXPECT_EQ(client->reload("127.0.0.1", 0), 0);
    EXPECT_THAT(log.lines(), ElementsAre(info_line("cloudRelayClientReload",
                                                   "[CRC_SLP] Disconnect relay-server ok.")));
}

TEST_F(UbusControlTest, ReloadPassesOnWhyItFailed) {
    start();
    for (uint32_t port : {65536U, 70000U, UINT32_MAX}) {
        log.clear();
        EXPECT_EQ(client->reload("127.0.0.1", port), 100);
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line("swCloudRelayClientTaskStart",
                                           "Ensure NULL != ipaddr && port <= 65535 && port >= 0 "
                                           "failed."),
                                error_line("cloudRelayClientReload",
                                           "E - 100 call swCloudRelayClientTaskStart(addrStr, "
                                           "port) failed.")));
    }
}

TEST_F(UbusControlTest, ReloadStartsASessionTowardTheAddressAsItWasGiven) {
    start();
    EXPECT_EQ(client->reload("no relay here", 4433), 0);
    EXPECT_EQ(client->replies, 0) << "a reload answers with its status alone";
    EXPECT_TRUE(log.gets(info_line("cloudRelayClientReload",
                                   "[CRC_SLP] Connect relay-server(no relay here:4433) ok.")));
    EXPECT_TRUE(log.gets(info_line("cloud_session_connect",
                                   "[CRC:] Connect relay-server use [no relay here:4433]")));
}

TEST_F(UbusControlTest, StopWhileIdleIsQuietlyFine) {
    start();
    EXPECT_EQ(client->call("stop"), 0);
    EXPECT_EQ(client->replies, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(UbusControlTest, AReloadThatRestartsMakesOtherCallersWait) {
    int silent = listen_at(); // TCP connects, TLS gets no answer: the session stays in its connect
    start();
    ASSERT_EQ(client->reload("127.0.0.1", static_cast<uint32_t>(port_of(silent))), 0);
    auto begin = steady::now();
    client->send_reload("127.0.0.1", 1);
    EXPECT_EQ(client->call("stop"), 0);
    EXPECT_GE(steady::now() - begin, std::chrono::seconds(3));
    EXPECT_TRUE(log.has(
        info_line("_swCloudRelayClientTaskRestart", "[CRC:] ReStart cloudRelayClient-task ok")));
    close(silent);
}

class DbgTest : public UbusControlTest {
protected:
    static void SetUpTestSuite() {
        static const bool isCovered = (cover_folder("/dev", {"console"}), true);
        ASSERT_TRUE(isCovered);
    }

    // A console whose output is read here.
    void SetUp() override {
        UbusControlTest::SetUp();
        ASSERT_EQ(mkfifo(CONSOLE, 0600), 0);
        console = open(CONSOLE, O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(console, 0);
    }
    void TearDown() override {
        close(console);
        remove_file(CONSOLE);
    }

    // What appeared on the console since the last time.
    std::string read_console() {
        char text[4096];
        ssize_t count = read(console, text, sizeof text);
        return count > 0 ? std::string(text, static_cast<size_t>(count)) : "";
    }

    static constexpr char CONSOLE[] = "/dev/console";
    int console = -1;
};

TEST_F(DbgTest, TogglesTheOutputBetweenConsoleAndNothing) {
    start();
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(client->call("dbg"), 0);
        EXPECT_EQ(read_console(), "Enable debug!\n");
        client->reload("127.0.0.1", 0);
        EXPECT_THAT(read_console(), HasSubstr("[CRC_SLP] Disconnect relay-server ok."));
        EXPECT_EQ(client->call("dbg"), 0);
        EXPECT_EQ(read_console(), "Disable debug!\n") << "still on the console";
        client->reload("127.0.0.1", 0);
        EXPECT_EQ(read_console(), "");
    }
    EXPECT_THAT(log.text(), IsEmpty()) << "nothing went where output went before the first call";
    EXPECT_EQ(client->replies, 0);
}

// A pipe of one page that holds a line has room for the next, but poll() does not report it
// writable. A line for an output that blocks waits for poll(); one for the console must not.
TEST_F(DbgTest, WritesWithoutPollingOnceTheConsoleDoesNotBlock) {
    start();
    ASSERT_GT(fcntl(console, F_SETPIPE_SZ, 1), 0);
    EXPECT_EQ(client->call("dbg"), 0);
    client->reload("127.0.0.1", 0);
    EXPECT_THAT(read_console(), AllOf(StartsWith("Enable debug!\n"),
                                      HasSubstr("[CRC_SLP] Disconnect relay-server ok.")));
}

TEST_F(DbgTest, TakesStandardErrorAlong) {
    start([] {
        int result = run_control_side();
        fputs("complaint", stderr);
        return result;
    });
    EXPECT_EQ(client->call("dbg"), 0);
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->exit_code(), 0);
    EXPECT_EQ(read_console(), "Enable debug!\ncomplaint");
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(DbgTest, PrintsPartialLinesToTheConsoleAtOnce) {
    start([] {
        static char buffers[2][BUFSIZ];
        setvbuf(stdout, buffers[0], _IOFBF, BUFSIZ);
        setvbuf(stderr, buffers[1], _IOFBF, BUFSIZ);
        run_control_side();
        fputs("half a line, ", stdout);
        fputs("half a complaint", stderr);
        for (;;) {
            pause(); // the end of the process would write what is still buffered
        }
        return 0;
    });
    EXPECT_EQ(client->call("dbg"), 0);
    daemon->signal(SIGTERM); // ends the event loop
    std::string shown;
    EXPECT_TRUE(eventually([&] {
        shown += read_console();
        return shown == "Enable debug!\nhalf a line, half a complaint";
    })) << shown;
}

TEST_F(DbgTest, LeavesTheOutputWhereItIsWhenThereIsNoConsole) {
    remove_file(CONSOLE);
    start();
    EXPECT_EQ(client->call("dbg"), 0);
    EXPECT_EQ(log.text(), "Enable debug!\n");
}

TEST_F(DbgTest, LeavesTheOutputWhereItIsWhenStandardInputWasClosed) {
    start([] {
        static uloop_timeout beforeTheFirstCall = {};
        beforeTheFirstCall.cb = [](uloop_timeout*) { close(STDIN_FILENO); };
        uloop_timeout_set(&beforeTheFirstCall, 0);
        return run_control_side();
    });
    EXPECT_EQ(client->call("dbg"), 0);
    EXPECT_EQ(log.text(), "Enable debug!\n");
    EXPECT_EQ(read_console(), "");
}

TEST_F(UbusControlTest, ReconnectsAtOnceWhenAnotherBrokerIsThere) {
    start();
    broker_process next(NEXT_SOCKET);
    ASSERT_EQ(rename(NEXT_SOCKET, BUS_SOCKET), 0);
    broker->kill();
    connect();
    EXPECT_EQ(client->reload("127.0.0.1", 0), 0);
    EXPECT_EQ(log.count(retry_line()), 0U);
}

TEST_F(UbusControlTest, TriesAtOnceAndEveryTwoSecondsUntilTheBrokerIsBack) {
    start();
    client.reset();
    auto lost = steady::now();
    broker->kill();
    ASSERT_TRUE(log.gets(retry_line()));
    ASSERT_TRUE(log.gets(retry_line(), 2));
    EXPECT_GE(steady::now() - lost, std::chrono::seconds(2));
    broker.emplace();
    connect();
    EXPECT_EQ(client->reload("127.0.0.1", 0), 0) << "the new socket is watched";
}

TEST_F(UbusControlTest, ConnectsAnewWhenItsFirstSocketCannotBeWatched) {
    broker.emplace();
    daemon.emplace([] {
        unwatched = 1;
        return run_control_side();
    });
    ASSERT_TRUE(log.gets(plain_line(SOCKET_IS_WATCHED)));
    EXPECT_EQ(log.count(retry_line()), 1U);
    connect();
    EXPECT_EQ(client->reload("127.0.0.1", 0), 0);
}

TEST_F(UbusControlTest, ConnectsAnewWhenTheSocketOfAReconnectCannotBeWatched) {
    start([] {
        unwatched = 2;
        return run_control_side();
    });
    client.reset();
    broker->kill();
    ASSERT_TRUE(log.gets(retry_line()));
    broker.emplace();
    ASSERT_TRUE(log.gets(plain_line(SOCKET_IS_WATCHED)));
    EXPECT_GE(log.count(retry_line()), 2U);
    connect();
    EXPECT_EQ(client->reload("127.0.0.1", 0), 0);
}

TEST_F(UbusControlTest, TriesToReconnectAtOnceWhenTheBusIsLost) {
    start([] {
        marksLosses = true;
        return run_control_side();
    });
    broker->kill();
    ASSERT_TRUE(log.gets(plain_line(A_MOMENT_AFTER_THE_LOSS)));
    EXPECT_THAT(log.lines().front(), retry_line());
}

TEST_F(UbusControlTest, TriesAgainWhileAnotherHoldsItsName) {
    start();
    client.reset();
    broker_process next(NEXT_SOCKET);
    forked rival([] {
        // Blocked, a signal that comes early waits. An event loop that only begins loses it.
        sigset_t end;
        sigemptyset(&end);
        sigaddset(&end, SIGTERM);
        sigprocmask(SIG_BLOCK, &end, nullptr);
        ubus_context* context = ubus_connect(NEXT_SOCKET);
        ubus_object_type type = {};
        ubus_object object = {};
        object.name = OBJECT;
        object.type = &type;
        int result = context == nullptr ? 1 : ubus_add_object(context, &object);
        if (int number = 0; result == 0) {
            sigwait(&end, &number);
        }
        ubus_free(context);
        return result;
    });
    client.emplace(NEXT_SOCKET);
    ASSERT_TRUE(eventually([&] { return client->sees_object(); }));
    ASSERT_EQ(rename(NEXT_SOCKET, BUS_SOCKET), 0);
    broker->kill();
    ASSERT_TRUE(log.gets(retry_line()));
    rival.signal(SIGTERM);
    ASSERT_TRUE(rival.exit_code().has_value());
    EXPECT_TRUE(
        eventually([&] { return client->sees_object() && client->reload("127.0.0.1", 0) == 0; }));
}

TEST_F(UbusControlTest, ALossWithoutConnectionIsOnlyLogged) {
    start([] {
        int result = run_ubus_init();
        connection_lost_of_freed(nullptr);
        return result;
    });
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->exit_code(), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("ubus_connection_lost", "l_ubus_common_ctx is NULL\n")));
}

} // namespace
