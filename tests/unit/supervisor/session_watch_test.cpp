#include "supervisor/session_watch.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "own_program.h"
#include "supervisor/process.h"
#include "support/eventually.h"
#include "support/namespaces.h"
#include "support/tcp.h"
#include "support/uplink.h"

namespace {

// A network of our own also keeps other test processes of the same name out of sight.
const bool isPrivate = private_namespaces();

using namespace std::chrono_literals;

int connect_to(const char* address, int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in there = {};
    there.sin_family = AF_INET;
    there.sin_addr.s_addr = inet_addr(address);
    there.sin_port = htons(static_cast<uint16_t>(port));
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&there), sizeof there), 0);
    return fd;
}

// A thread that bears a worker's name and wakes at a pace, if at all.
class worker {
public:
    explicit worker(const std::string& name, std::chrono::milliseconds pace = 1h)
        : thread([this, name, pace] { live(name, pace); }) {
        std::unique_lock guard(lock);
        changed.wait(guard, [this] { return id != 0; });
    }
    ~worker() {
        {
            std::lock_guard guard(lock);
            ending = true;
        }
        changed.notify_all();
        thread.join();
    }
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;

    int id = 0; // of the thread

private:
    void live(const std::string& name, std::chrono::milliseconds pace) {
        prctl(PR_SET_NAME, name.c_str());
        std::unique_lock guard(lock);
        id = static_cast<int>(syscall(SYS_gettid));
        changed.notify_all();
        while (!changed.wait_for(guard, pace, [this] { return ending; })) {
        }
    }

    std::mutex lock;
    std::condition_variable changed;
    bool ending = false;
    std::thread thread;
};

// This process plays the daemon: its threads and sockets are what is seen. The clock is the test's,
// except where the pace of a thread counts.
class SessionWatch : public testing::Test {
protected:
    SessionWatch() {
        session_watch_init(&watch, program.c_str());
        expect(port_of(listener));
    }
    ~SessionWatch() override {
        session_watch_destroy(&watch);
        close(listener);
    }

    void expect(int port) {
        server there = {"relay.example", static_cast<uint16_t>(port)};
        session_watch_expect(&watch, &there, 1);
    }

    sighting look() {
        now += 1000;
        return session_watch_look(&watch, now);
    }

    std::string program = own_program();
    int listener = listen_at();
    session_watch watch = {};
    int64_t now = 1000000;
};

TEST_F(SessionWatch, AProcessWithoutWorkerIsSeen) {
    sighting seen = look();
    EXPECT_TRUE(seen.daemon);
    EXPECT_EQ(seen.worker, 0);
    EXPECT_FALSE(seen.established);
    EXPECT_EQ(seen.at, now);
}

TEST_F(SessionWatch, AProcessThatIsNotThereIsNotSeen) {
    session_watch_init(&watch, "no_such_program");
    EXPECT_FALSE(look().daemon);
}

TEST_F(SessionWatch, AWorkerIsKnownByItsName) {
    worker other("cycleHn");
    EXPECT_EQ(look().worker, 0);
    worker first("cycleHnd_0");
    EXPECT_EQ(look().worker, first.id);
}

TEST_F(SessionWatch, TheNewestWorkerCounts) {
    worker newest("cycleHnd_10");
    worker older("cycleHnd_9");
    EXPECT_EQ(look().worker, newest.id);
}

TEST_F(SessionWatch, AConnectionToAnExpectedPortIsSeenAndItsEndToo) {
    worker working("cycleHnd_3");
    int fd = connect_to("127.0.0.1", port_of(listener));
    sighting seen = look();
    ASSERT_TRUE(seen.established);
    EXPECT_EQ(seen.address, inet_addr("127.0.0.1"));
    EXPECT_EQ(seen.port, port_of(listener));
    EXPECT_EQ(seen.inode, process_socket(watch.process, fd));
    EXPECT_FALSE(seen.cut_off);
    EXPECT_TRUE(look().established);
    close(fd);
    EXPECT_FALSE(look().established);
}

TEST_F(SessionWatch, AConnectionToAnotherPortDoesNotCount) {
    worker working("cycleHnd_3");
    int other = listen_at();
    int fd = connect_to("127.0.0.1", port_of(other));
    EXPECT_FALSE(look().established);
    expect(port_of(other));
    EXPECT_TRUE(look().established);
    expect(port_of(listener));
    EXPECT_FALSE(look().established);
    close(fd);
    close(other);
}

TEST_F(SessionWatch, AConnectionThatTheRelayClosedDoesNotCount) {
    worker working("cycleHnd_3");
    int fd = connect_to("127.0.0.1", port_of(listener));
    ASSERT_TRUE(look().established);
    close(accept_connection(listener));
    expect(port_of(listener)); // a thorough look
    EXPECT_FALSE(look().established);
    close(fd);
}

TEST_F(SessionWatch, AConnectionWithoutWorkerDoesNotCount) {
    int fd = connect_to("127.0.0.1", port_of(listener));
    EXPECT_FALSE(look().established);
    close(fd);
}

TEST_F(SessionWatch, TheEndOfTheWorkerIsSeen) {
    auto working = std::make_unique<worker>("cycleHnd_3");
    int fd = connect_to("127.0.0.1", port_of(listener));
    look();
    EXPECT_NE(look().worker, 0);
    working.reset();
    EXPECT_TRUE(eventually([this] { return look().worker == 0; }));
    close(fd);
}

TEST_F(SessionWatch, OfSeveralConnectionsTheOneOfTheLastLookIsKept) {
    worker working("cycleHnd_3");
    int other = listen_at();
    int before = connect_to("127.0.0.1", port_of(other));
    int kept = connect_to("127.0.0.1", port_of(listener));
    int after = connect_to("127.0.0.1", port_of(other));
    uint64_t inode = look().inode;
    ASSERT_EQ(inode, process_socket(watch.process, kept));
    server both[] = {{"relay.example", static_cast<uint16_t>(port_of(other))},
                     {"relay.example", static_cast<uint16_t>(port_of(listener))}};
    session_watch_expect(&watch, both, 2);
    for (int i = 0; i < 70; i++) {
        EXPECT_EQ(look().inode, inode);
    }
    close(kept);
    sighting seen = look();
    EXPECT_TRUE(seen.established);
    EXPECT_NE(seen.inode, inode);
    for (int fd : {before, after, other}) {
        close(fd);
    }
}

TEST_F(SessionWatch, ASecondLookWithinASecondIsTheFirstOne) {
    EXPECT_EQ(look().worker, 0);
    worker working("cycleHnd_3");
    sighting again = session_watch_look(&watch, now + 999);
    EXPECT_EQ(again.worker, 0);
    EXPECT_EQ(again.at, now);
    EXPECT_EQ(session_watch_look(&watch, now + 1000).worker, working.id);
}

TEST_F(SessionWatch, AnAddressThatLeftTheInterfacesCutsTheConnectionOff) {
    uplink wan("wan0", 1, 10);
    wan.host("10.99.0.1");
    int far = wan.listen("10.99.0.1");
    expect(port_of(far));
    worker working("cycleHnd_3");
    int fd = connect_to("10.99.0.1", port_of(far));
    sighting seen = look();
    ASSERT_TRUE(seen.established);
    EXPECT_FALSE(seen.cut_off);
    wan.cut();
    seen = look();
    EXPECT_TRUE(seen.established);
    EXPECT_TRUE(seen.cut_off);
    close(fd);
    close(far);
}

// --- pace, in real time ---

class Pace : public SessionWatch {
protected:
    // Looks three times, a second apart.
    bool is_calm_after_three_looks() {
        bool calm = false;
        for (int i = 0; i < 3; i++) {
            std::this_thread::sleep_for(1s);
            now = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count();
            calm = session_watch_look(&watch, now).calm;
        }
        return calm;
    }
};

TEST_F(Pace, AWorkerThatWakesFiveTimesASecondIsCalm) {
    worker session("cycleHnd_0", 200ms);
    EXPECT_TRUE(is_calm_after_three_looks());
}

TEST_F(Pace, AWorkerThatWakesFiftyTimesASecondIsNot) {
    worker hello("cycleHnd_0", 20ms);
    EXPECT_FALSE(is_calm_after_three_looks());
}

TEST_F(Pace, AWorkerThatSleepsIsNot) {
    worker tls("cycleHnd_0");
    EXPECT_FALSE(is_calm_after_three_looks());
}

} // namespace
