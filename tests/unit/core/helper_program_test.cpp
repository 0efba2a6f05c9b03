#include "core/helper_program.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <gmock/gmock.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"
#include "support/worker_wishes.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using steady = std::chrono::steady_clock;

constexpr int64_t LIMIT_MS = 60 * 1000;
constexpr char STARTED[] = "started"; // the file by which a command shows that it runs
constexpr char ENDLESS[] = "sleep 100";

bool is_running(pid_t process) {
    std::string status = read_file("/proc/" + std::to_string(process) + "/status");
    return !status.empty() && status.find("State:\tZ") == std::string::npos;
}

size_t open_descriptors() {
    std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

class HelperProgram : public testing::Test {
protected:
    HelperProgram() { memset(buffer, '?', sizeof buffer); }
    ~HelperProgram() override {
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child process is left";
        remove_file(scratch_path(STARTED));
    }

    // What a command prints, as a text; the number of bytes is in `length`.
    std::string run(const std::string& command, int64_t limit = LIMIT_MS) {
        length = helper_program_read(command.c_str(), buffer, sizeof buffer, limit);
        return std::string(buffer, length > 0 ? static_cast<size_t>(length) : 0);
    }

    // The same on another thread, which heeds the wishes.
    std::future<std::string> begin(const std::string& command) {
        return std::async(std::launch::async, [this, command] {
            wishes.adopt();
            return run(command);
        });
    }

    // A command that names the process `id` in the file, then goes on.
    static std::string tell(const std::string& id, const std::string& rest) {
        std::string file = scratch_path(STARTED);
        return "echo " + id + " >" + file + ".new; mv " + file + ".new " + file + "; " + rest;
    }
    static pid_t told() {
        EXPECT_TRUE(eventually([] { return !read_file(scratch_path(STARTED)).empty(); }));
        return atoi(read_file(scratch_path(STARTED)).c_str());
    }

    // Waits until the other thread has looked at the clock again; true when it waits on then.
    bool goes_on(const std::future<std::string>& result) {
        int64_t before = clock.readings();
        return eventually([&] { return clock.readings() > before + 2; }) &&
               result.wait_for(std::chrono::seconds(0)) == std::future_status::timeout;
    }

    std::string untouched() const { return std::string(sizeof buffer, '?'); }
    std::string held() const { return std::string(buffer, sizeof buffer); }

    const size_t descriptors = open_descriptors();
    moved_clock clock;
    worker_wishes wishes;
    char buffer[16];
    ssize_t length = -2;
};

TEST_F(HelperProgram, GivesWhatItPrints) {
    EXPECT_EQ(run("printf text"), "text");
    EXPECT_EQ(length, 4);
    EXPECT_EQ(held(), "text????????????");
}

TEST_F(HelperProgram, StartsWithNoSignalBlockedEvenWhereItsStarterBlocksAll) {
    // Debian's own shell unblocks all signals as it starts.
    ASSERT_EQ(mount("/bin/bash", "/bin/sh", nullptr, MS_BIND, nullptr), 0);
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    std::string blocked = run("sed -n 's/^SigBlk:[^0-9a-f]*//p' /proc/self/status");
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    EXPECT_EQ(umount("/bin/sh"), 0);
    EXPECT_EQ(blocked, "0000000000000000");
}

TEST_F(HelperProgram, GivesTheFirstBytesOfMore) {
    EXPECT_EQ(run("printf 0123456789abcdefghij"), "0123456789abcdef");
    EXPECT_EQ(length, 16);
    EXPECT_EQ(helper_program_read("printf more", buffer, 3, LIMIT_MS), 3);
    EXPECT_EQ(held(), "mor3456789abcdef");
}

TEST_F(HelperProgram, GivesTheFirstBytesOfAProgramThatPrintsUntilNobodyReads) {
    EXPECT_EQ(run("yes"), "y\ny\ny\ny\ny\ny\ny\ny\n");
}

TEST_F(HelperProgram, GivesWhatComesInPieces) {
    EXPECT_EQ(run("for i in 1 2 3 4; do echo $i; sleep 0.01; done"), "1\n2\n3\n4\n");
}

TEST_F(HelperProgram, GivesTheOutputOfACommandThatFails) {
    EXPECT_EQ(run("printf text; exit 3"), "text");
}

TEST_F(HelperProgram, GivesNothingOfACommandThatPrintsNothing) {
    EXPECT_EQ(run("true"), "");
    EXPECT_EQ(length, 0);
    EXPECT_EQ(held(), untouched());
}

TEST_F(HelperProgram, GivesNothingOfACommandThatIsNotFound) {
    log_capture log;
    EXPECT_EQ(run("no_such_program"), "");
    EXPECT_EQ(length, 0);
    EXPECT_THAT(log.errors(), HasSubstr("no_such_program"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(HelperProgram, IsWaitedForAfterItsLastOutput) {
    std::string file = scratch_path(STARTED);
    EXPECT_EQ(run("printf text; exec >&-; sleep 0.05; echo 1 >" + file), "text");
    EXPECT_EQ(read_file(file), "1\n");
}

// --- commands that do not end

TEST_F(HelperProgram, IsKilledWithAllItStartedWhenItsTimeIsUp) {
    auto result = begin(std::string("printf text; ") + ENDLESS + " & " + tell("$!", "wait"));
    pid_t child = told();
    clock.move(LIMIT_MS - 10000);
    EXPECT_TRUE(goes_on(result));
    EXPECT_TRUE(is_running(child));
    clock.move(10000);
    EXPECT_EQ(result.get(), "");
    EXPECT_EQ(length, 0);
    EXPECT_EQ(held(), std::string(4, '\0') + "????????????") << "half an answer counts as none";
    EXPECT_TRUE(eventually([&] { return !is_running(child); }));
}

TEST_F(HelperProgram, IsKilledAfterItsTimeAndNotMuchLater) {
    auto start = steady::now();
    EXPECT_EQ(run(ENDLESS, 100), "");
    auto took = steady::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(99)); // it counts from a whole millisecond on
    EXPECT_LT(took, std::chrono::milliseconds(1000) * SLOWNESS);
}

TEST_F(HelperProgram, WhoseChildKeepsTheOutputIsNotOverWithItsOwnEnd) {
    auto result = begin(std::string(ENDLESS) + " & " + tell("$!", "printf text"));
    pid_t child = told();
    clock.move(LIMIT_MS);
    EXPECT_EQ(result.get(), "");
    EXPECT_TRUE(eventually([&] { return !is_running(child); }));
}

TEST_F(HelperProgram, ThatPrintsForEverAndDoesNotMindThatNobodyReadsIsKilled) {
    log_capture complaints; // of the shell that cannot print
    auto result = begin("ulimit -t 20; trap '' PIPE; echo more text than fits; " +
                        tell("$$", "while :; do echo x; done"));
    pid_t shell = told();
    EXPECT_TRUE(goes_on(result));
    clock.move(LIMIT_MS);
    EXPECT_EQ(result.get(), "");
    EXPECT_EQ(held(), std::string(sizeof buffer, '\0'));
    EXPECT_FALSE(is_running(shell));
}

TEST_F(HelperProgram, OfAThreadThatIsLetGoEndsWithinASecond) {
    auto result = begin(tell("$$", ENDLESS));
    pid_t shell = told();
    auto start = steady::now();
    wishes.letGo = 1;
    EXPECT_EQ(result.get(), "");
    EXPECT_LT(steady::now() - start, std::chrono::seconds(1) * SLOWNESS);
    EXPECT_FALSE(is_running(shell));
}

TEST_F(HelperProgram, ThatLingersAfterItsOutputEndsWhenTheThreadIsLetGo) {
    auto result = begin("exec >&-; " + tell("$$", ENDLESS));
    pid_t shell = told();
    wishes.letGo = 1;
    EXPECT_EQ(result.get(), "");
    EXPECT_FALSE(is_running(shell));
}

TEST_F(HelperProgram, OfASessionThatIsToEndIsWaitedFor) {
    std::string gate = scratch_path("gate");
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    wishes.stop = 1;
    auto result = begin(tell("$$", "cat " + gate));
    told();
    EXPECT_TRUE(goes_on(result));
    write_file(gate, "text");
    EXPECT_EQ(result.get(), "text");
    remove_file(gate);
}

// --- failures

TEST_F(HelperProgram, ThatCannotBeStartedIsAnError) {
    fail_call failure("posix_spawn");
    errno = 0;
    EXPECT_EQ(run("printf text"), "");
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(length, -1);
    EXPECT_EQ(held(), untouched());
}

TEST_F(HelperProgram, WhoseOutputCannotBeReadIsKilledAndPrintedNothing) {
    for (const char* call : {"poll", "read"}) {
        log_capture log;
        fail_call failure(call, 2);
        auto start = steady::now();
        EXPECT_EQ(run("printf text; sleep 0.01; printf more; " + std::string(ENDLESS)), "") << call;
        EXPECT_EQ(length, 0);
        EXPECT_THAT(log.messages(), ElementsAre(StartsWith("Read the helper's output failed: ")));
        EXPECT_EQ(held(), std::string(4, '\0') + "????????????") << "half an answer counts as none";
        EXPECT_LT(steady::now() - start, std::chrono::seconds(10));
        memset(buffer, '?', sizeof buffer);
    }
}

TEST_F(HelperProgram, WithoutDescriptorsIsAnError) {
    rlimit former = {};
    getrlimit(RLIMIT_NOFILE, &former);
    rlimit none = {0, former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    ssize_t result = helper_program_read("printf text", buffer, sizeof buffer, LIMIT_MS);
    int error = errno;
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EMFILE);
}

// As the event loop may do.
class ReapedHelper : public HelperProgram {
protected:
    ReapedHelper() { former = signal(SIGCHLD, SIG_IGN); }
    ~ReapedHelper() override { signal(SIGCHLD, former); }

    void (*former)(int);
};

TEST_F(ReapedHelper, BySomebodyElseHasEndedAllTheSame) {
    EXPECT_EQ(run("printf text"), "text");
}

TEST_F(ReapedHelper, BySomebodyElseAfterItWasKilledHasEndedAllTheSame) {
    EXPECT_EQ(run(ENDLESS, 100), "");
    EXPECT_EQ(length, 0);
}

} // namespace
