#include "supervisor/configuration.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <string>
#include <utility>

#include "support/log_capture.h"
#include "support/namespaces.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::HasSubstr;
using testing::StartsWith;

class Configuration : public testing::Test {
protected:
    // Reads what a file with one section of these lines says.
    void read(const std::string& lines) { read_file_of("config supervisor 'main'\n" + lines); }

    void read_file_of(const std::string& text) {
        write_file("/etc/config/cloud_relay", text);
        log_capture log;
        readable = configuration_read(nullptr, &config);
        mistakes = log.errors();
    }

    std::string servers() const {
        std::string all;
        for (size_t i = 0; i < config.server_count; i++) {
            all += std::string(i == 0 ? "" : " ") + server_show(config.servers[i]).text;
        }
        return all;
    }

    configuration config = configuration_defaults();
    bool readable = false;
    std::string mistakes;
};

TEST_F(Configuration, AServerIsAllThatItNeeds) {
    read("\tlist server 'relay.example.net:8443'\n");
    EXPECT_TRUE(readable);
    EXPECT_EQ(mistakes, "");
    EXPECT_EQ(servers(), "relay.example.net:8443");
    EXPECT_TRUE(config.enabled);
    EXPECT_EQ(config.boot_delay_ms, 10000);
    EXPECT_EQ(config.pause_min_ms, 1000);
    EXPECT_EQ(config.pause_max_ms, 300000);
    EXPECT_EQ(config.success_after_ms, 60000);
    EXPECT_EQ(config.connect_interval_ms, 5000);
    EXPECT_EQ(config.object_timeout_ms, 30000);
    EXPECT_EQ(config.failures_per_server, 3);
}

TEST_F(Configuration, EveryOptionIsRead) {
    read("\toption enabled 'off'\n\toption boot_delay '0'\n\toption pause_min '0.25'\n"
         "\toption pause_max '7'\n\toption success_after '90'\n\toption connect_interval '1.5'\n"
         "\toption object_timeout '45'\n\toption failures_per_server '5'\n"
         "\tlist server 'a:1'\n\tlist server '10.0.0.1:2'\n");
    EXPECT_EQ(mistakes, "");
    EXPECT_FALSE(config.enabled);
    EXPECT_EQ(config.boot_delay_ms, 0);
    EXPECT_EQ(config.pause_min_ms, 250);
    EXPECT_EQ(config.pause_max_ms, 7000);
    EXPECT_EQ(config.success_after_ms, 90000);
    EXPECT_EQ(config.connect_interval_ms, 1500);
    EXPECT_EQ(config.object_timeout_ms, 45000);
    EXPECT_EQ(config.failures_per_server, 5);
    EXPECT_EQ(servers(), "a:1 10.0.0.1:2");
}

TEST_F(Configuration, ASingleServerMayBeAnOption) {
    read("\toption server 'relay:443'\n");
    EXPECT_EQ(servers(), "relay:443");
    EXPECT_EQ(mistakes, "");
}

TEST_F(Configuration, SectionsOfOtherTypesAreNotRead) {
    read_file_of("config service 'service'\n\toption respawn_retry '0'\n"
                 "config supervisor\n\tlist server 'relay:443'\n");
    EXPECT_EQ(servers(), "relay:443");
    EXPECT_EQ(mistakes, "");
}

TEST_F(Configuration, AFileWithoutTheSectionIsReported) {
    read_file_of("config service 'service'\n");
    EXPECT_TRUE(readable);
    EXPECT_EQ(config.server_count, 0U);
    EXPECT_EQ(mistakes, "cloud_relay: there is no section of type 'supervisor'; nothing is "
                        "connected to\n");
}

TEST_F(Configuration, AListWithoutUsableServerIsReported) {
    read("");
    EXPECT_EQ(mistakes, "cloud_relay: no usable server is listed; nothing is connected to\n");
    read("\toption enabled '0'\n");
    EXPECT_EQ(mistakes, "");
}

TEST_F(Configuration, WhatCannotBeReadLeavesTheResultAlone) {
    config.pause_min_ms = 77;
    remove_file("/etc/config/cloud_relay");
    log_capture log;
    EXPECT_FALSE(configuration_read(nullptr, &config));
    EXPECT_THAT(log.errors(), StartsWith("cloud_relay: the configuration cannot be read"));
    EXPECT_EQ(config.pause_min_ms, 77);
}

TEST_F(Configuration, WhatCannotBeParsedLeavesTheResultAlone) {
    config.pause_min_ms = 77;
    read_file_of("config supervisor 'main\n");
    EXPECT_FALSE(readable);
    EXPECT_THAT(mistakes, StartsWith("cloud_relay: the configuration cannot be read: Parse error"));
    EXPECT_EQ(config.pause_min_ms, 77);
}

TEST_F(Configuration, AMaximumBelowTheMinimumIsRaised) {
    read("\tlist server 'a:1'\n\toption pause_min '20'\n\toption pause_max '10'\n");
    EXPECT_EQ(config.pause_max_ms, 20000);
    EXPECT_EQ(mistakes, "cloud_relay: option 'pause_max' is below 'pause_min'; the latter is taken "
                        "for both\n");
}

TEST_F(Configuration, AMinimumAboveTheUsualMaximumRaisesThat) {
    read("\tlist server 'a:1'\n\toption pause_min '600'\n");
    EXPECT_EQ(config.pause_max_ms, 600000);
    EXPECT_THAT(mistakes, HasSubstr("'pause_max' is below 'pause_min'"));
}

TEST_F(Configuration, MoreServersThanThereIsRoomForAreLeftOut) {
    std::string lines;
    for (int port = 1; port <= 9; port++) {
        lines += "\tlist server 'a:" + std::to_string(port) + "'\n";
    }
    read(lines);
    EXPECT_EQ(servers(), "a:1 a:2 a:3 a:4 a:5 a:6 a:7 a:8");
    EXPECT_EQ(mistakes,
              "cloud_relay: server 'a:9' is one too many, 8 is the most; it is left out\n");
}

TEST_F(Configuration, EachMistakeIsOneLineAndTheRestIsUsed) {
    read("\toption enabled '2'\n\toption pause_min 'soon'\n\tlist server 'x'\n"
         "\tlist server 'a\nb:1'\n\tlist server 'a:1'\n\toption success_after '70'\n");
    EXPECT_EQ(std::count(mistakes.begin(), mistakes.end(), '\n'), 4) << mistakes;
    EXPECT_EQ(servers(), "a:1");
    EXPECT_EQ(config.success_after_ms, 70000);
    EXPECT_TRUE(config.enabled);
}

TEST_F(Configuration, LimitsHold) {
    struct {
        const char* option;
        const char* least;
        const char* below;
        const char* most;
        const char* above;
    } cases[] = {
        {"boot_delay", "0", "-0", "3600", "3600.001"},
        {"pause_min", "0.01", "0.009", "3600", "3600.001"},
        {"success_after", "1", "0.999", "86400", "86400.001"},
        {"connect_interval", "0", "-0", "3600", "3600.001"},
        {"object_timeout", "1", "0.999", "3600", "3600.001"},
        {"failures_per_server", "1", "0", "1000", "1001"},
    };
    for (const auto& limits : cases) {
        auto lines = [&](const char* value) {
            return std::string("\tlist server 'a:1'\n\toption pause_max '86400'\n\toption ") +
                   limits.option + " '" + value + "'\n";
        };
        read(lines(limits.least));
        EXPECT_EQ(mistakes, "");
        read(lines(limits.most));
        EXPECT_EQ(mistakes, "");
        read(lines(limits.below));
        EXPECT_THAT(mistakes, HasSubstr(limits.option));
        read(lines(limits.above));
        EXPECT_THAT(mistakes, HasSubstr(limits.option));
    }
}

// --- spellings ---

using spelling = std::pair<std::string, int>; // and what it means; -1: refused

class PauseSpelling : public Configuration, public testing::WithParamInterface<spelling> {};

TEST_P(PauseSpelling, IsReadOrRefused) {
    auto [text, ms] = GetParam();
    read("\tlist server 'a:1'\n\toption boot_delay '" + text + "'\n");
    if (ms >= 0) {
        EXPECT_EQ(config.boot_delay_ms, ms);
        EXPECT_EQ(mistakes, "");
    } else {
        EXPECT_EQ(config.boot_delay_ms, 10000);
        EXPECT_EQ(mistakes, "cloud_relay: option 'boot_delay' is '" + text +
                                "', but must be seconds from 0 to 3600; 10 is taken\n");
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, PauseSpelling,
    testing::Values(spelling{"0", 0}, spelling{"3600", 3600000}, spelling{"007", 7000},
                    spelling{"0.5", 500}, spelling{"1.25", 1250}, spelling{"1.001", 1001},
                    spelling{"3600.001", -1}, spelling{"3601", -1}, spelling{"1.", -1},
                    spelling{".5", -1}, spelling{"1.0001", -1}, spelling{"-1", -1},
                    spelling{"+1", -1}, spelling{" 1", -1}, spelling{"1s", -1}, spelling{"1,5", -1},
                    spelling{"1e3", -1}, spelling{"0x10", -1}, spelling{"1.5.", -1},
                    spelling{"soon", -1}, spelling{"99999999999999999999", -1}));

class SwitchSpelling : public Configuration, public testing::WithParamInterface<spelling> {};

TEST_P(SwitchSpelling, IsReadOrRefused) {
    auto [text, value] = GetParam();
    read("\tlist server 'a:1'\n\toption enabled '" + text + "'\n");
    EXPECT_EQ(config.enabled, value != 0);
    EXPECT_EQ(mistakes.empty(), value >= 0);
}

INSTANTIATE_TEST_SUITE_P(All, SwitchSpelling,
                         testing::Values(spelling{"1", 1}, spelling{"0", 0}, spelling{"yes", 1},
                                         spelling{"no", 0}, spelling{"on", 1}, spelling{"off", 0},
                                         spelling{"true", 1}, spelling{"false", 0},
                                         spelling{"FALSE", 0}, spelling{"enabled", 1},
                                         spelling{"disabled", 0}, spelling{"2", -1},
                                         spelling{"maybe", -1}));

TEST(ConfigurationFind, FindsAServerOrTheCount) {
    configuration config = configuration_defaults();
    EXPECT_EQ(configuration_find(config, {"a", 1}), 0U);
    config.servers[0] = {"a", 1};
    config.servers[1] = {"b", 2};
    config.server_count = 2;
    EXPECT_EQ(configuration_find(config, {"B", 2}), 1U);
    EXPECT_EQ(configuration_find(config, {"b", 3}), 2U);
}

} // namespace
