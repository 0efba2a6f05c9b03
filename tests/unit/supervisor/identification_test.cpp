#include "supervisor/identification.h"

#include <arpa/inet.h>
#include <chrono>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "support/eventually.h"
#include "support/namespaces.h"

namespace {

const bool isPrivate = private_namespaces();

constexpr int NO_ANSWER = -100;
int answer = NO_ANSWER;

void take_answer(int found) {
    answer = found;
}

bool is_answered() {
    return eventually([] {
        uloop_run_timeout(20);
        return answer != NO_ANSWER;
    });
}

class Identification : public testing::Test {
protected:
    Identification() {
        uloop_init();
        answer = NO_ANSWER;
        write_file("/etc/hosts", "127.0.0.1 localhost\n10.0.0.5 five.example\n"
                                 "10.0.0.6 both.example\n10.0.0.7 both.example\n");
    }
    ~Identification() override { uloop_done(); }

    int by_address(const char* address, uint16_t port = 443) {
        return identify_by_address(servers, 3, inet_addr(address), port);
    }

    bool ask(const char* address, uint16_t port = 443) {
        return identify_start(servers, 3, inet_addr(address), port, take_answer);
    }

    int by_name(const char* address, uint16_t port = 443) {
        answer = NO_ANSWER;
        EXPECT_TRUE(ask(address, port));
        EXPECT_TRUE(is_answered());
        return answer;
    }

    server servers[3] = {{"10.0.0.4", 443}, {"five.example", 443}, {"both.example", 443}};
};

TEST_F(Identification, AServerGivenByItsAddressIsFoundWithoutResolving) {
    EXPECT_EQ(by_address("10.0.0.4"), 0);
    EXPECT_EQ(by_address("10.0.0.5"), SERVER_UNKNOWN);
}

TEST_F(Identification, WithNoNameOnThatPortNothingNeedsResolving) {
    EXPECT_EQ(by_address("10.0.0.4", 8443), SERVER_NONE);
    servers[1].port = servers[2].port = 8443;
    EXPECT_EQ(by_address("10.0.0.5"), SERVER_NONE);
}

TEST_F(Identification, EveryAddressOfANameIsIts) {
    EXPECT_EQ(by_name("10.0.0.5"), 1);
    EXPECT_EQ(by_name("10.0.0.6"), 2);
    EXPECT_EQ(by_name("10.0.0.7"), 2);
}

TEST_F(Identification, WhatNobodyHasIsNone) {
    EXPECT_EQ(by_name("10.0.0.8"), SERVER_NONE);
    EXPECT_EQ(by_name("10.0.0.5", 8443), SERVER_NONE);
}

TEST_F(Identification, ANameThatDoesNotResolveLeavesItOpen) {
    servers[1] = {"nowhere.example", 443};
    EXPECT_EQ(by_name("10.0.0.8"), SERVER_UNKNOWN);
    EXPECT_EQ(by_name("10.0.0.7"), 2); // unless another one has it
}

TEST_F(Identification, OneQuestionIsAskedAtATime) {
    ASSERT_TRUE(ask("10.0.0.5"));
    EXPECT_FALSE(ask("10.0.0.6"));
    EXPECT_TRUE(is_answered());
    EXPECT_EQ(answer, 1);
    EXPECT_EQ(by_name("10.0.0.6"), 2);
}

// A name server that says nothing: the resolver waits for seconds.
class silent_name_server {
public:
    silent_name_server() {
        sockaddr_in own = {};
        own.sin_family = AF_INET;
        own.sin_port = htons(53);
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
        write_file("/etc/nsswitch.conf", "hosts: dns\n");
        write_file("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    }
    ~silent_name_server() {
        close(fd);
        write_file("/etc/nsswitch.conf", "hosts: files\n");
    }
    silent_name_server(const silent_name_server&) = delete;
    silent_name_server& operator=(const silent_name_server&) = delete;

    bool is_asked() const {
        char query[512];
        return recv(fd, query, sizeof query, 0) > 0;
    }

private:
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
};

TEST_F(Identification, ANameServerThatSaysNothingHoldsUpNothing) {
    silent_name_server silent;
    auto begun = std::chrono::steady_clock::now();
    ASSERT_TRUE(ask("10.0.0.5"));
    ASSERT_TRUE(silent.is_asked());
    uloop_run_timeout(20);
    EXPECT_EQ(answer, NO_ANSWER);
    identify_cancel();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(3));
}

TEST_F(Identification, ACancelledQuestionIsNotAnswered) {
    ASSERT_TRUE(ask("10.0.0.5"));
    identify_cancel();
    for (int i = 0; i < 10; i++) {
        uloop_run_timeout(20);
    }
    EXPECT_EQ(answer, NO_ANSWER);
    identify_cancel();
    EXPECT_EQ(by_name("10.0.0.6"), 2);
}

} // namespace
