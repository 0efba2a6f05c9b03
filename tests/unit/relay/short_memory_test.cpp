// Every allocation while a connection is taken and served fails once. The listener stays, and
// nothing of the connection is left.

#include "admin/admin.h"
#include "base/guarded.h"
#include "front/front.h"

#include "certificate_files.h"
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

    static int connected_to(std::uint16_t port) {
        const int peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return peer;
    }

    // Opens a connection, asks, and leaves again. While the relay takes the connection and answers,
    // its `failing`th allocation fails; `has_failed_` says whether there are as many.
    std::string answer_of(std::uint16_t port, int failing = 0) {
        const int user = connected_to(port);
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

TEST_F(ShortMemory, ClosesEveryConnectionOfADevice) {
    const ScratchFolder folder;
    write_certificate(folder, "relay");
    auto config = loopback();
    config.devices.tls.certificate = folder.file("relay.pem");
    config.devices.tls.key = folder.file("relay.key");
    Devices devices(coroutines_.executor(), config, deadlines_, budget_, clients_, metrics_);
    ASSERT_TRUE(devices.load_certificate(error_) && devices.listen(error_)) << error_;
    int nth = 0;
    do {
        const int device = connected_to(devices.port());
        settle();
        {
            const FailingNew failure(++nth);
            guarded("closing failed", [&] { devices.close_all(); });
            has_failed_ = failure.happened();
        }
        settle();
        char byte = 0;
        EXPECT_EQ(recv(device, &byte, 1, MSG_DONTWAIT), 0)
            << "after a failure of allocation " << nth;
        close(device);
    } while (has_failed_ && !HasFailure());
    EXPECT_GT(nth, 1);
}

} // namespace
} // namespace relay
