#include "core/uci_option.h"

#include <cstring>
#include <gmock/gmock.h>
#include <string>
#include <thread>

#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

struct Uci : testing::Test {
    Uci() {
        write_file("/etc/config/device_info", "config info 'info'\n"
                                              "\toption hw_version '1.0'\n"
                                              "\toption sw_version '1.2'\n"
                                              "\toption device_model 'RT-2100'\n"
                                              "\tlist dns '192.0.2.1'\n"
                                              "\tlist dns '192.0.2.2'\n"
                                              "config port\n"
                                              "\toption number '8080'\n");
    }
    ~Uci() override { remove_file("/etc/config"); }

    // Reads an option over `out`'s first text.
    int read(const char* path) { return readUCI(path, out); }

    char out[16] = "untouched";
};

TEST_F(Uci, ReadsAnOption) {
    memset(out, 0, sizeof out);
    log_capture log;
    EXPECT_EQ(read("device_info.info.device_model"), 0);
    EXPECT_STREQ(out, "RT-2100");
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(log.errors(), "");
}

TEST_F(Uci, AValueShorterThanTheDefaultKeepsTheDefaultsTail) {
    strcpy(out, "9.9.9");
    EXPECT_EQ(read("device_info.info.sw_version"), 0);
    EXPECT_STREQ(out, "1.2.9");
}

TEST_F(Uci, CopiesNoTerminator) {
    memset(out, 'x', sizeof out);
    EXPECT_EQ(read("device_info.info.hw_version"), 0);
    EXPECT_EQ(std::string(out, sizeof out), "1.0" + std::string(sizeof out - 3, 'x'));
}

TEST_F(Uci, CutsAValueThatDoesNotFitAndSparesTheLastByte) {
    char small[4] = "abc";
    EXPECT_EQ(readUCI("device_info.info.device_model", small), 0);
    EXPECT_STREQ(small, "RT-");
    char one[1] = "";
    EXPECT_EQ(readUCI("device_info.info.device_model", one), 0);
    EXPECT_STREQ(one, "");
}

TEST_F(Uci, FollowsTheExtendedSyntax) {
    memset(out, 0, sizeof out);
    EXPECT_EQ(read("device_info.@port[0].number"), 0);
    EXPECT_STREQ(out, "8080");
}

TEST_F(Uci, SeesAChangedFileAtTheNextCall) {
    memset(out, 0, sizeof out);
    EXPECT_EQ(read("device_info.info.hw_version"), 0);
    write_file("/etc/config/device_info", "config info 'info'\n\toption hw_version '2.0'\n");
    EXPECT_EQ(read("device_info.info.hw_version"), 0);
    EXPECT_STREQ(out, "2.0");
}

TEST_F(Uci, RefusesANullPath) {
    log_capture log;
    EXPECT_EQ(read(nullptr), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("readUCI", "Ensure str != NULL failed.")));
    EXPECT_STREQ(out, "untouched");
}

TEST_F(Uci, FailsWithoutAContext) {
    log_capture log;
    fail_call failure("uci_alloc_context");
    EXPECT_EQ(read("device_info.info.hw_version"), -1);
    EXPECT_TRUE(failure.happened());
    EXPECT_THAT(log.lines(), ElementsAre(error_line("readUCI", "Ensure context != NULL failed.")));
    EXPECT_STREQ(out, "untouched");
}

TEST_F(Uci, ReadsAllOrNothingWhereverMemoryRunsShort) {
    int failures = 0;
    bool happened = true;
    for (int nth = 1; happened; nth++) {
        strcpy(out, "untouched");
        log_capture log;
        fail_call failure("calloc", nth);
        int result = read("device_info.info.device_model");
        happened = failure.happened();
        failures += result == -1;
        ASSERT_STREQ(out, result == 0 ? "RT-2100ed" : "untouched") << "allocation " << nth;
    }
    EXPECT_GT(failures, 5);
    EXPECT_STREQ(out, "RT-2100ed");
}

TEST_F(Uci, ReportsAMissingOptionOnStandardError) {
    log_capture log;
    EXPECT_EQ(read("device_info.info.colour"), -1);
    EXPECT_THAT(log.errors(), StartsWith("do not find the option: "));
    EXPECT_THAT(log.errors(), HasSubstr("Entry not found"));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_STREQ(out, "untouched");
}

TEST_F(Uci, APathThatEndsAboveAnOptionFindsNone) {
    for (const char* path : {"device_info.info", "device_info", "device_info.nowhere.hw_version",
                             "device_info.nowhere"}) {
        log_capture log;
        EXPECT_EQ(read(path), -1) << path;
        EXPECT_THAT(log.errors(), HasSubstr("Entry not found")) << path;
        EXPECT_STREQ(out, "untouched") << path;
    }
}

TEST_F(Uci, AListIsNoText) {
    log_capture log;
    EXPECT_EQ(read("device_info.info.dns"), -1);
    EXPECT_THAT(log.errors(), StartsWith("do not find the option: "));
    EXPECT_STREQ(out, "untouched");
}

TEST_F(Uci, ReportsAConfigurationThatCannotBeRead) {
    for (const char* text : {"config info 'info\n", "option stray '1'\n", "garbage\n"}) {
        write_file("/etc/config/broken", text);
        log_capture log;
        EXPECT_EQ(read("broken.info.hw_version"), -1) << text;
        EXPECT_THAT(log.errors(), StartsWith("read UCI file error: ")) << text;
        EXPECT_STREQ(out, "untouched") << text;
    }
}

TEST_F(Uci, ReportsAMissingFileAndAPathThatIsNone) {
    const std::string longPath = "device_info.info." + std::string(1000, 'x');
    for (const std::string& path : {std::string("absent.info.hw_version"), std::string(""),
                                    std::string("."), std::string("a b.c"), longPath}) {
        log_capture log;
        EXPECT_EQ(read(path.c_str()), -1) << path;
        EXPECT_THAT(log.errors(), testing::AnyOf(StartsWith("read UCI file error: "),
                                                 StartsWith("do not find the option: ")))
            << path;
        EXPECT_STREQ(out, "untouched") << path;
    }
}

TEST_F(Uci, ThreadsReadSideBySide) {
    constexpr int READS = 200;
    int wrong[2] = {};
    auto reader = [](const char* path, const char* expected, int* mistakes) {
        for (int i = 0; i < READS; i++) {
            char value[16] = {};
            *mistakes += readUCI(path, value) != 0 || strcmp(value, expected) != 0;
        }
    };
    std::thread one(reader, "device_info.info.device_model", "RT-2100", &wrong[0]);
    std::thread other(reader, "device_info.@port[0].number", "8080", &wrong[1]);
    one.join();
    other.join();
    EXPECT_THAT(wrong, ElementsAre(0, 0));
}

} // namespace
