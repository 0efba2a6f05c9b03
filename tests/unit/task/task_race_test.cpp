// Start, stop and end of a session at the same time. Most of these are for the thread sanitizer.

#include <atomic>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>

#include "controlled_task.h"
#include "support/tcp.h"

using testing::IsEmpty;

namespace {

const bool isPrivate = private_namespaces();

std::atomic<bool> isCreatorLate = false;

// Whether every other thread sleeps or is gone.
bool is_alone_awake() {
    size_t awake = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(thread.path() / "stat");
        std::string stat;
        std::getline(file, stat);
        size_t name = stat.rfind(") ");
        awake += name != std::string::npos && stat[name + 2] != 'S';
    }
    return awake == 1;
}

} // namespace

// Stands before the library's own: while a test asks for it, a thread's creator is not told before
// the new thread has come to its end or has to wait for somebody.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*run)(void*), void* argument) {
    using creator = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const creator create = reinterpret_cast<creator>(dlsym(RTLD_NEXT, "pthread_create"));
    bool isLate = isCreatorLate;
    int result = create(thread, attributes, run, argument);
    if (isLate) {
        EXPECT_TRUE(eventually(is_alone_awake));
    }
    return result;
}

namespace {

using TaskRaceTest = ControlledTask;

TEST_F(TaskRaceTest, AWorkerThatIsFasterThanItsCreatorLeavesTheControllerIdle) {
    isCreatorLate = true;
    ASSERT_EQ(start(refusing_port()), 0);
    isCreatorLate = false;
    ASSERT_TRUE(log.gets(worker_exits()));
    expect_idle();
    ASSERT_EQ(start(refusing_port()), 0);
    ASSERT_TRUE(log.gets(worker_exits(), 2));
    EXPECT_THAT(log.messages(RESTART), IsEmpty());
}

TEST_F(TaskRaceTest, StopsMayMeetTheEndOfTheSession) {
    int refused = refusing_port();
    for (size_t session = 1; session <= 40; session++) {
        ASSERT_EQ(start(refused), 0);
        while (log.count(worker_exits()) < session) {
            EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
        }
    }
    expect_idle();
}

TEST_F(TaskRaceTest, StopsMayMeetTheRelaysClose) {
    tls_peer relay;
    for (size_t session = 1; session <= 5; session++) {
        relay.accept();
        ASSERT_EQ(start(relay.port()), 0);
        greet(relay);
        relay.close_notify();
        while (log.count(worker_exits()) < session) {
            EXPECT_EQ(swCloudRelayClientTaskStop(), 0);
        }
    }
    expect_idle();
}

} // namespace
