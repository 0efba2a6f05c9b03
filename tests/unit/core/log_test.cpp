#include "core/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "own_output.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;

const std::string RED = "\033[31;49m";
const std::string YELLOW = "\033[33;49m";
const std::string RESET = "\033[0m\r\n";
// The 255 characters that bound a line's template hold this in front of the message.
const std::string TEMPLATE_PREFIX = "\033[31;49m[<%s/%s>:<%s/%s()/%d>] ";
const size_t TEMPLATE_LIMIT = 255;
const size_t LONGEST_WHOLE_MESSAGE = TEMPLATE_LIMIT - TEMPLATE_PREFIX.size() - RESET.size();

// Names the calling thread for a test, as the program's threads are named.
struct thread_name {
    explicit thread_name(const char* name) {
        prctl(PR_GET_NAME, former);
        cloud_name_thread(name);
    }
    ~thread_name() { cloud_name_thread(former); }
    char former[16];
};

std::string prefix(const std::string& color, const std::string& place) {
    return color + "[<cloud_relay_client/main>:<cloud_relay_client/" + place + ">] ";
}

struct Log : testing::Test {
    thread_name name{"main"};
};

TEST_F(Log, PrintsAnErrorInRedWithModuleThreadFunctionAndLine) {
    log_capture log;
    cloud_log(log_level::error, "some_function", 42, "Result %d of %s.", -7, "it");
    EXPECT_EQ(log.text(), prefix(RED, "some_function()/42") + "Result -7 of it." + RESET);
    EXPECT_EQ(log.errors(), "");
}

TEST_F(Log, PrintsAnInformationInYellow) {
    log_capture log;
    cloud_log(log_level::info, "adSysApiInit", 7, "Init OK.");
    EXPECT_EQ(log.text(), prefix(YELLOW, "adSysApiInit()/7") + "Init OK." + RESET);
}

TEST_F(Log, NamesTheThreadThatSpeaks) {
    log_capture log;
    std::thread([] {
        thread_name worker("cycleHnd_1");
        LOG_INFO("from the worker");
    }).join();
    LOG_INFO("from the main thread");
    std::vector<log_line> lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].thread, "cycleHnd_1");
    EXPECT_EQ(lines[1].thread, "main");
}

TEST_F(Log, AThreadThatWasNotNamedHasTheNameItStartedWith) {
    log_capture log;
    std::thread([] {
        prctl(PR_SET_NAME, "at_start");
        LOG_INFO("first");
    }).join();
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].thread, "at_start");
}

TEST_F(Log, ANamedThreadHasItsNameAtTheKernelToo) {
    log_capture log;
    std::thread([] {
        LOG_INFO("under the former name");
        cloud_name_thread("fifteen_letters_and_more");
        LOG_INFO("under the new name");
        char atKernel[16] = {};
        prctl(PR_GET_NAME, atKernel);
        EXPECT_STREQ(atKernel, "fifteen_letters");
    }).join();
    std::vector<log_line> lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].thread, "fifteen_letters");
}

int speak() {
    LOG_ERROR("an error");
    return __LINE__ - 1;
}

TEST_F(Log, MacrosNameTheFunctionAndLineTheyStandIn) {
    log_capture log;
    int line = speak();
    std::vector<log_line> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].function, "speak");
    EXPECT_EQ(lines[0].number, line);
}

void private_step() {
    LOG_ERROR_AS("operation", "%d failed", 1);
    LOG_INFO_AS("operation", "%d went well", 2);
}

TEST_F(Log, APrivateStepSpeaksInTheNameOfItsOperation) {
    log_capture log;
    private_step();
    EXPECT_THAT(log.lines(), ElementsAre(error_line("operation", "1 failed"),
                                         info_line("operation", "2 went well")));
}

TEST_F(Log, KeepsALineFeedAtTheEndOfATemplate) {
    log_capture log;
    cloud_log(log_level::error, "f", 1, "params invalid\n");
    EXPECT_EQ(log.text(), prefix(RED, "f()/1") + "params invalid\n" + RESET);
}

TEST_F(Log, TextFromOutsideIsNoTemplate) {
    log_capture log;
    LOG_ERROR("got %s", "%s%n%d");
    EXPECT_THAT(log.messages(), ElementsAre("got %s%n%d"));
}

TEST_F(Log, PrintsAllOfALongArgument) {
    const std::string text(100000, 'x');
    log_capture log;
    LOG_ERROR("Parse buf failed,%s.\n", text.c_str());
    EXPECT_THAT(log.messages(), ElementsAre("Parse buf failed," + text + ".\n"));
}

TEST_F(Log, PrintsLinesOfEveryLengthWhole) {
    for (size_t length = 400; length < 600; length++) {
        const std::string text(length, 'x');
        log_capture log;
        cloud_log(log_level::error, "f", 1, "%s", text.c_str());
        ASSERT_EQ(log.text(), prefix(RED, "f()/1") + text + RESET);
    }
}

TEST_F(Log, CutsALongLineWhenMemoryIsShort) {
    const std::string text(1000, 'x');
    log_capture log;
    {
        fail_call failure("malloc");
        cloud_log(log_level::error, "f", 1, "%s", text.c_str());
        EXPECT_TRUE(failure.happened());
    }
    std::string printed = log.text();
    ASSERT_EQ(printed.size(), 511u);
    size_t kept = printed.size() - RESET.size();
    EXPECT_EQ(printed, (prefix(RED, "f()/1") + text).substr(0, kept) + RESET);
}

// The message's template is data here, so the compiler cannot check it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

TEST_F(Log, KeepsTheResetOfATemplateThatJustFits) {
    const std::string message(LONGEST_WHOLE_MESSAGE, 'm');
    log_capture log;
    cloud_log(log_level::error, "f", 1, message.c_str());
    EXPECT_EQ(log.text(), prefix(RED, "f()/1") + message + RESET);
}

TEST_F(Log, ATemplateTooLongByOneCharacterLosesTheEndOfTheReset) {
    const std::string message(LONGEST_WHOLE_MESSAGE + 1, 'm');
    log_capture log;
    cloud_log(log_level::error, "f", 1, message.c_str());
    EXPECT_EQ(log.text(), prefix(RED, "f()/1") + message + "\033[0m\r");
}

TEST_F(Log, ATemplateThatIsTooLongIsCutAndTheResetIsLostWithIt) {
    const std::string message(1000, 'm');
    log_capture log;
    cloud_log(log_level::error, "f", 1, message.c_str());
    EXPECT_EQ(log.text(),
              prefix(RED, "f()/1") + message.substr(0, TEMPLATE_LIMIT - TEMPLATE_PREFIX.size()));
}

#pragma GCC diagnostic pop

TEST_F(Log, KeepsItsPlaceAmongPlainPrints) {
    log_capture log;
    puts("before");
    LOG_INFO("between");
    puts("after");
    EXPECT_THAT(log.lines(), ElementsAre(plain_line("before"), info_line("TestBody", "between"),
                                         plain_line("after")));
}

TEST_F(Log, ALineLeavesInOneWrite) {
    // A datagram is what one write made of it.
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    const std::string argument(5000, 'x');
    {
        own_output datagrams(ends[1]);
        cloud_log(log_level::info, "f", 1, "short");
        cloud_log(log_level::info, "f", 2, "%s", argument.c_str());
    }
    std::string datagram(10000, '\0');
    ssize_t size = recv(ends[0], datagram.data(), datagram.size(), MSG_DONTWAIT);
    EXPECT_EQ(datagram.substr(0, static_cast<size_t>(size)),
              prefix(YELLOW, "f()/1") + "short" + RESET);
    size = recv(ends[0], datagram.data(), datagram.size(), MSG_DONTWAIT);
    EXPECT_EQ(datagram.substr(0, static_cast<size_t>(size)),
              prefix(YELLOW, "f()/2") + argument + RESET);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Log, LinesOfTwoThreadsDoNotMix) {
    constexpr int LINES = 500;
    log_capture log;
    auto talk = [](const char* word) {
        for (int i = 0; i < LINES; i++) {
            LOG_INFO("%s %s %s", word, word, word);
        }
    };
    std::thread one(talk, "one");
    std::thread other(talk, "other");
    one.join();
    other.join();
    int counts[2] = {};
    for (const std::string& message : log.messages()) {
        counts[0] += message == "one one one";
        counts[1] += message == "other other other";
    }
    EXPECT_THAT(counts, ElementsAre(LINES, LINES));
}

TEST_F(Log, SurvivesAnOutputThatTakesNothing) {
    int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    {
        own_output nothing(full);
        LOG_INFO("lost");
    }
    close(full);
    log_capture log;
    LOG_INFO("seen");
    EXPECT_THAT(log.messages(), ElementsAre("seen"));
}

int need(const char* buf) {
    ENSURE(buf, -1);
    return 0;
}

int need_both(const char* ip, int port) {
    ENSURE(NULL != ip && port <= 65535 && port > 0, 100);
    return 0;
}

void need_or_leave(const char* context, bool* reached) {
    ENSURE(context != NULL, );
    *reached = true;
}

TEST_F(Log, AFailedCheckPrintsTheConditionAsItIsWritten) {
    log_capture log;
    EXPECT_EQ(need(nullptr), -1);
    EXPECT_EQ(need_both("127.0.0.1", 65536), 100);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("need", "Ensure buf failed."),
                            error_line("need_both", "Ensure NULL != ip && port <= 65535 && "
                                                    "port > 0 failed.")));
}

TEST_F(Log, AFailedCheckLeavesAFunctionWithoutResult) {
    log_capture log;
    bool reached = false;
    need_or_leave(nullptr, &reached);
    EXPECT_FALSE(reached);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("need_or_leave", "Ensure context != NULL failed.")));
}

TEST_F(Log, AHeldCheckPrintsNothing) {
    log_capture log;
    bool reached = false;
    EXPECT_EQ(need("text"), 0);
    EXPECT_EQ(need_both("127.0.0.1", 65535), 0);
    need_or_leave("text", &reached);
    EXPECT_TRUE(reached);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Log, ACallFailureGivesValueAndCall) {
    log_capture log;
    LOG_ERROR(CALL_FAILED, -1, "getFacinfoByUbus()");
    EXPECT_THAT(log.messages(), ElementsAre("E - -1 call getFacinfoByUbus() failed."));
}

} // namespace
