// Every allocation while a connection is taken and served fails once. The listener stays, and
// nothing of the connection is left.

#include "admin/admin.h"
#include "base/guarded.h"
#include "front/front.h"

#include "coroutines.h"
#include "failing_new.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace relay {
namespace {

using testing::StartsWith;

class ShortMemory : public testing::Test {
protected:
    static Config loopback() {
        Config config;
        config.access_log = "";
        config.devices.listen = config.front.listen = config.admin.listen = {"127.0.0.1", 0};
        return config;
    }

    void SetUp() override {
        deadlines_.start([] {});
        testing::internal::CaptureStderr(); // a line for each failure
    }
    void TearDown() override { testing::internal::GetCapturedStderr(); }

    // What is ready to run, as Relay::run() has it.
    void settle() {
        run_through([this] { coroutines_.settle(); });
    }

    // Opens a connection, asks, and leaves again. While the relay takes the connection and answers,
    // its `failing`th allocation fails; `has_failed_` says whether there are as many.
    std::string answer_of(std::uint16_t port, int failing = 0) {
        const int user = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(user, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        constexpr char request[] = "GET /healthz HTTP/1.1\r\nHost: nobody.localhost\r\n\r\n";
        EXPECT_GT(send(user, request, sizeof request - 1, MSG_NOSIGNAL), 0);
        {
            const FailingNew failure(failing);
            settle();
            has_failed_ = failure.happened();
        }
        char answer[64] = {};
        recv(user, answer, sizeof answer - 1, MSG_DONTWAIT);
        close(user);
        settle();
        return answer;
    }

    // The listener may rest for a moment after a failure.
    void expect_service(std::uint16_t port, const char* status, int nth) {
        std::string answer;
        coroutines_.run_until([&] {
            answer = answer_of(port);
            return !answer.empty();
        });
        EXPECT_THAT(answer, StartsWith(status)) << "after a failure of allocation " << nth;
    }

    void fail_each(std::uint16_t port, const char* status) {
        int nth = 0;
        do {
            answer_of(port, ++nth);
            const bool is_last = !has_failed_;
            expect_service(port, status, nth);
            if (is_last)
                break;
        } while (!HasFailure());
        EXPECT_GT(nth, 10) << "hardly anything was allocated";
    }

    const Config config_ = loopback();
    MemoryBudget budget_{config_.memory_bytes};
    Clients clients_;
    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    Metrics metrics_;
    AccessLog access_log_;
    Devices devices_{coroutines_.executor(), config_, deadlines_, budget_, clients_, metrics_};
    std::uint16_t front_port_ = 0;
    bool draining_ = false;
    std::string error_;
    bool has_failed_ = false;
};

TEST_F(ShortMemory, EndsNoListenerForUsers) {
    Front front({coroutines_.executor(), config_, deadlines_, budget_, clients_, metrics_,
                 access_log_, devices_});
    ASSERT_TRUE(front.listen(error_)) << error_;
    fail_each(front.port(), "HTTP/1.1 404");
    EXPECT_TRUE(front.is_idle()) << "a connection that ended is still counted";
    EXPECT_EQ(budget_.used, 0U);
}

TEST_F(ShortMemory, EndsNoListenerForOperators) {
    Admin admin({coroutines_.executor(), config_, deadlines_, budget_, clients_, metrics_, devices_,
                 access_log_, front_port_, draining_});
    ASSERT_TRUE(admin.listen(error_)) << error_;
    fail_each(admin.port(), "HTTP/1.1 200");
    admin.close_all(); // touches every connection that is still listed
}

} // namespace
} // namespace relay
