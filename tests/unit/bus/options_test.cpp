#include "tool/options.h"

#include <getopt.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tool/command.h"

namespace {

class Options : public testing::Test {
protected:
    bool read(std::vector<std::string> arguments) {
        m_texts = std::move(arguments);
        m_texts.insert(m_texts.begin(), "ubus");
        m_arguments.clear();
        for (std::string& text : m_texts) {
            m_arguments.push_back(text.data());
        }
        m_arguments.push_back(nullptr);
        optind = 0; // glibc: begin anew
        const int count = static_cast<int>(m_texts.size());
        testing::internal::CaptureStderr();
        const bool done = bus::options_read(count, m_arguments.data(), options, &m_first);
        errors = testing::internal::GetCapturedStderr();
        return done;
    }
    std::string command() const { return m_arguments[static_cast<size_t>(m_first)]; }

    bus::tool_options options = {};
    std::string errors;

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_arguments;
    int m_first = 0;
};

TEST_F(Options, HaveDefaults) {
    ASSERT_TRUE(read({"list"}));
    EXPECT_EQ(options.socket, nullptr);
    EXPECT_EQ(options.timeout_ms, 30000);
    EXPECT_FALSE(options.timeout_given || options.simple || options.verbose || options.help);
    EXPECT_EQ(command(), "list");
}

TEST_F(Options, AreReadBeforeTheCommand) {
    ASSERT_TRUE(read({"-s", "/tmp/s", "-t", "5", "-S", "-v", "call", "a", "b", "{}"}));
    EXPECT_STREQ(options.socket, "/tmp/s");
    EXPECT_EQ(options.timeout_ms, 5000);
    EXPECT_TRUE(options.timeout_given && options.simple && options.verbose);
    EXPECT_EQ(command(), "call");
}

TEST_F(Options, AllowNoTimeLimit) {
    ASSERT_TRUE(read({"-t", "0", "list"}));
    EXPECT_EQ(options.timeout_ms, 0);
}

TEST_F(Options, RefuseSecondsThatAreNoNumberInRange) {
    for (const char* text : {"", "x", "5x", " 5", "-1", "+5", "2147484", "99999999999999999999"}) {
        EXPECT_FALSE(read({"-t", text, "list"})) << text;
        EXPECT_EQ(errors, std::string("ubus: -t ") + text +
                              ": seconds must be a number from 0 to 2147483\n");
    }
}

TEST_F(Options, NameWhatTheyDoNotKnow) {
    EXPECT_FALSE(read({"-x", "list"}));
    EXPECT_EQ(errors, "ubus: unknown option -x\n");
    EXPECT_FALSE(read({"list", "-t"}));
    EXPECT_EQ(errors, "ubus: option -t needs a value\n");
}

TEST(Commands, AreFoundByNameAndCountOfArguments) {
    EXPECT_NE(bus::command_find("list", 0), nullptr);
    EXPECT_NE(bus::command_find("list", 1), nullptr);
    EXPECT_EQ(bus::command_find("list", 2), nullptr);
    EXPECT_EQ(bus::command_find("call", 1), nullptr);
    EXPECT_NE(bus::command_find("call", 3), nullptr);
    EXPECT_NE(bus::command_find("listen", 100), nullptr);
    EXPECT_EQ(bus::command_find("wait_for", 0), nullptr);
    EXPECT_EQ(bus::command_find("frobnicate", 0), nullptr);
}

} // namespace
