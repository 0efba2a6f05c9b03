#include "supervisor/log.h"

#include <gtest/gtest.h>
#include <string>

#include "support/log_capture.h"

namespace {

TEST(SupervisorLog, InformationAndErrorsGoTheirWays) {
    log_capture log;
    log_info("%s: connecting, attempt %u", "relay:443", 3U);
    log_error("no %s", "way");
    EXPECT_EQ(log.text(), "relay:443: connecting, attempt 3\n");
    EXPECT_EQ(log.errors(), "no way\n");
}

TEST(SupervisorLog, AMessageIsOneLineWhateverItQuotes) {
    log_capture log;
    log_info("server '%s'", "a\nb\r\x1b[31m\x7f\xc3\xa9");
    EXPECT_EQ(log.text(), "server 'a?b??[31m?\xc3\xa9'\n");
}

TEST(SupervisorLog, ALongMessageIsCut) {
    log_capture log;
    log_info("%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(log.text(), std::string(511, 'x') + "\n");
}

} // namespace
