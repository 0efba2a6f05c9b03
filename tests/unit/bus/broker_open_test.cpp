// A broker that cannot be served ends its start, and leaves nothing behind.

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "broker/broker.h"

namespace {

class BrokerOpen : public testing::Test {
protected:
    BrokerOpen() : m_folder("/tmp/bus.XXXXXX") {
        EXPECT_NE(mkdtemp(m_folder.data()), nullptr);
        m_socket = m_folder + "/ubus.sock";
    }
    ~BrokerOpen() override { rmdir(m_folder.c_str()); }

    std::string m_folder;
    std::string m_socket;
};

// Without uloop_init() there is nothing to watch the socket with, as when memory is short.
TEST_F(BrokerOpen, FailsWhenTheSocketCannotBeWatched) {
    bus::broker broker;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(bus::broker_open(broker, m_socket.c_str()));
    EXPECT_NE(testing::internal::GetCapturedStderr().find(m_socket), std::string::npos);
    EXPECT_NE(access(m_socket.c_str(), F_OK), 0);
}

} // namespace
