// What becomes of the log's lines on an output that is slow, stuck, or shared with other programs.

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <map>
#include <optional>
#include <pthread.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/log.h"
#include "own_output.h"
#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"

namespace {

const bool isPrivate = private_namespaces();

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Lt;
using testing::MatchesRegex;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;
using steady = std::chrono::steady_clock;

constexpr milliseconds OUTPUT_PATIENCE{1000};
constexpr int PIPE_SIZE = 16384;
// A socket is writable again when three quarters have been read. That takes a slow reader on a busy
// machine less than the log's patience of 1 s only when they are a few reads.
constexpr int SOCKET_SIZE = 4096;
constexpr size_t MORE_THAN_FITS = 1024 * 1024;
const std::string RESET = "\033[0m\r\n";
const std::string big(100000, 'x');

// An output that the log may be given, and whether it was told of it (cloud_output_changed).
enum class output_kind { pipe, socket, stopped_terminal, unread_terminal };

struct output_case {
    output_kind kind;
    bool isAnnounced;
};

void PrintTo(output_kind kind, std::ostream* out) {
    constexpr const char* NAMES[] = {"pipe", "socket", "stopped_terminal", "unread_terminal"};
    *out << NAMES[static_cast<int>(kind)];
}

void PrintTo(const output_case& of, std::ostream* out) {
    PrintTo(of.kind, out);
    *out << (of.isAnnounced ? "_announced" : "");
}

struct descriptor {
    explicit descriptor(int number) : fd(number) {}
    ~descriptor() { close(); }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;

    void close() {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }

    int fd;
};

// The two ends of an output; what is written at one is read here at the other.
class output_ends {
public:
    explicit output_ends(output_kind kind) {
        int ends[2] = {-1, -1};
        switch (kind) {
        case output_kind::pipe:
            EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
            fcntl(ends[0], F_SETPIPE_SZ, PIPE_SIZE);
            break;
        case output_kind::socket:
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
            setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &SOCKET_SIZE, sizeof SOCKET_SIZE);
            break;
        case output_kind::stopped_terminal:
        case output_kind::unread_terminal:
            open_terminal(ends);
            break;
        }
        reading.emplace(ends[0]);
        writing.emplace(ends[1]);
        fcntl(ends[0], F_SETFL, fcntl(ends[0], F_GETFL) | O_NONBLOCK);
    }

    // As on a console, the kernel treats each character that is written.
    static void open_terminal(int (&ends)[2]) {
        ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        grantpt(ends[0]);
        unlockpt(ends[0]);
        char name[64] = {};
        ASSERT_EQ(ptsname_r(ends[0], name, sizeof name), 0);
        ends[1] = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(ends[1], 0);
        termios mode = {};
        tcgetattr(ends[1], &mode);
        cfmakeraw(&mode);
        mode.c_oflag = OPOST | ONLCR;
        tcsetattr(ends[1], TCSANOW, &mode);
    }

    // All that can be read without waiting.
    std::string take() {
        std::string text;
        char piece[4096];
        for (ssize_t count = 0; (count = read(reading->fd, piece, sizeof piece)) > 0;) {
            text.append(piece, static_cast<size_t>(count));
        }
        return as_written(text);
    }

    // Everything up to the output's end, a few bytes at a time.
    std::string take_slowly(size_t piece) {
        std::string text;
        std::string next(piece, '\0');
        fcntl(reading->fd, F_SETFL, fcntl(reading->fd, F_GETFL) & ~O_NONBLOCK);
        for (ssize_t count = 0; (count = read(reading->fd, next.data(), piece)) > 0;) {
            text.append(next, 0, static_cast<size_t>(count));
            std::this_thread::yield();
        }
        return as_written(text);
    }

    // A terminal puts a carriage return before each line feed.
    static std::string as_written(std::string text) {
        for (size_t at = 0; (at = text.find("\r\r\n", at)) != std::string::npos;) {
            text.erase(at, 1);
        }
        return text;
    }

    std::optional<descriptor> reading;
    std::optional<descriptor> writing;
};

// A line that a thread of its own logs while signals arrive at it, which interrupt its waits.
class signalled_log {
public:
    explicit signalled_log(const std::string& text)
        : thread([this, &text] {
              LOG_INFO("%s", text.c_str());
              isDone = true;
          }) {}
    ~signalled_log() {
        thread.join();
        sigaction(SIGUSR1, &former, nullptr);
    }
    signalled_log(const signalled_log&) = delete;
    signalled_log& operator=(const signalled_log&) = delete;

    // Sends a signal and waits until it arrived, unless the line is done.
    bool is_done_after_signal() {
        int before = arrived;
        pthread_kill(thread.native_handle(), SIGUSR1);
        return !eventually([&] { return isDone || arrived > before; }) || isDone;
    }

private:
    static struct sigaction handle() {
        struct sigaction action = {};
        action.sa_handler = [](int) { arrived++; };
        struct sigaction former = {};
        sigaction(SIGUSR1, &action, &former);
        return former;
    }

    static inline std::atomic<int> arrived = 0;
    struct sigaction former = handle();
    std::atomic<bool> isDone = false;
    std::thread thread;
};

// What the log prints there. Nothing is expected while standard output is elsewhere: a failure
// could not be printed.
class LogOutput : public testing::TestWithParam<output_case> {
protected:
    LogOutput() : ends(GetParam().kind) {}

    void divert() {
        diverted.emplace(ends.writing->fd);
        if (GetParam().isAnnounced) {
            cloud_output_changed(STDOUT_FILENO);
        }
    }
    void restore() { diverted.reset(); }

    // Has the output take nothing any more, until release(). Returns how long the line took that
    // was lost by that.
    milliseconds block() {
        milliseconds took{0};
        switch (GetParam().kind) {
        case output_kind::stopped_terminal:
            tcflow(ends.writing->fd, TCOOFF);
            return log_line_of("first");
        case output_kind::unread_terminal: // one that is full tells so at some lengths only
            for (size_t length = 1; took < OUTPUT_PATIENCE; length++) {
                took = log_line_of(std::string(length, 'x'));
            }
            return took;
        default:
            return log_line_of(std::string(MORE_THAN_FITS, 'x'));
        }
    }

    void release() {
        tcflow(ends.writing->fd, TCOON);
        ends.take();
    }

    // How long a line takes. When the log does not come back by itself, the output is read out.
    milliseconds log_line_of(const std::string& text) {
        auto start = steady::now();
        auto logged = std::async(std::launch::async, [&text] { LOG_INFO("%s", text.c_str()); });
        bool cameBack = logged.wait_for(PATIENCE) == std::future_status::ready;
        auto took = std::chrono::duration_cast<milliseconds>(steady::now() - start);
        while (!cameBack && logged.wait_for(milliseconds(1)) != std::future_status::ready) {
            release();
        }
        return took;
    }

    // Waits until a line has begun to arrive that goes on when somebody reads.
    bool has_begun() {
        return eventually([&] {
            int waiting = 0;
            ioctl(ends.reading->fd, FIONREAD, &waiting);
            return waiting > 0;
        });
    }

    output_ends ends;
    std::optional<own_output> diverted;
};

std::vector<output_case> outputs_of(const std::vector<output_kind>& kinds) {
    std::vector<output_case> cases;
    for (output_kind kind : kinds) {
        cases.push_back({kind, false});
        cases.push_back({kind, true});
    }
    return cases;
}

// --- an output that takes nothing

using StuckOutput = LogOutput;

TEST_P(StuckOutput, LosesALineInsteadOfHoldingTheThread) {
    divert();
    milliseconds first = block();
    auto start = steady::now();
    constexpr int FURTHER = 20;
    for (int line = 0; line < FURTHER; line++) {
        log_line_of("lost");
    }
    auto further = steady::now() - start;
    release();
    LOG_INFO("seen");
    std::string text = ends.take();
    restore();
    EXPECT_GE(first, OUTPUT_PATIENCE - milliseconds(1));
    EXPECT_LT(first, PATIENCE) << "the thread was held";
    EXPECT_LT(further, FURTHER * OUTPUT_PATIENCE / 2) << "they waited, too";
    EXPECT_THAT(text, EndsWith("] seen" + RESET));
    EXPECT_THAT(text, Not(HasSubstr("lost")));
}

INSTANTIATE_TEST_SUITE_P(OfEveryKind, StuckOutput,
                         testing::ValuesIn(outputs_of({output_kind::pipe, output_kind::socket,
                                                       output_kind::stopped_terminal,
                                                       output_kind::unread_terminal})),
                         testing::PrintToStringParamName());

using StuckPipe = LogOutput;

TEST_P(StuckPipe, IsWaitedForAgainOnceItTookALine) {
    divert();
    block();
    release();
    LOG_INFO("seen");
    ends.take();
    milliseconds took = block();
    restore();
    EXPECT_GE(took, OUTPUT_PATIENCE - milliseconds(1)); // counted from a whole millisecond on
}

TEST_P(StuckPipe, IsWaitedForAgainOnceItTakesPartOfALine) {
    divert();
    block();
    release();
    auto logged = std::async(std::launch::async, [this] { LOG_INFO("%s", big.c_str()); });
    bool begun = has_begun();
    std::string text;
    while (logged.wait_for(milliseconds(0)) != std::future_status::ready) {
        text += ends.take();
    }
    text += ends.take();
    restore();
    EXPECT_TRUE(begun);
    EXPECT_THAT(text, EndsWith("] " + big + RESET));
}

TEST_P(StuckPipe, EndsTheLineThatItTookHalfOf) {
    divert();
    block();
    log_line_of("lost");
    std::string half = ends.take();
    LOG_INFO("next");
    LOG_INFO("and next");
    const std::string rest = ends.take();
    restore();
    std::vector<log_line> lines = parse_log(half + rest);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(lines[0].message, MatchesRegex("x+"));
    EXPECT_THAT(lines[0].message.size(), Lt(MORE_THAN_FITS));
    EXPECT_EQ(lines[1].message, "next");
    EXPECT_EQ(lines[2].message, "and next");
}

TEST_P(StuckPipe, IsNotWaitedForLongerWhenSignalsArrive) {
    divert();
    signalled_log line(big);
    bool cameBack = eventually([&] { return line.is_done_after_signal(); });
    while (!line.is_done_after_signal()) {
        ends.take();
    }
    restore();
    EXPECT_TRUE(cameBack) << "each signal began another second";
}

INSTANTIATE_TEST_SUITE_P(Twice, StuckPipe, testing::ValuesIn(outputs_of({output_kind::pipe})),
                         testing::PrintToStringParamName());

// --- an output that takes little at a time

using SlowOutput = LogOutput;

TEST_P(SlowOutput, GetsALongLineWholeAndNoOtherInIt) {
    constexpr size_t LONG_LINES = 3;
    constexpr size_t SHORT_LINES = 200;
    auto reader = std::async(std::launch::async, [this] { return ends.take_slowly(777); });
    auto say = [](const std::string& text, size_t times) {
        for (size_t i = 0; i < times; i++) {
            LOG_INFO("%s", text.c_str());
        }
    };
    divert();
    std::thread one(say, "one", SHORT_LINES);
    std::thread other(say, "other", SHORT_LINES);
    say(big, LONG_LINES);
    one.join();
    other.join();
    restore();
    ends.writing->close();
    std::map<std::string, size_t> counts;
    for (const log_line& line : parse_log(reader.get())) {
        counts[line.message]++;
    }
    EXPECT_THAT(counts, UnorderedElementsAre(Pair("one", SHORT_LINES), Pair("other", SHORT_LINES),
                                             Pair(big, LONG_LINES)));
}

TEST_P(SlowOutput, GetsALineWholeThatSignalsInterrupt) {
    divert();
    signalled_log line(big);
    bool begun = has_begun();
    for (int signals = 0; signals < 5; signals++) { // while it waits for a reader
        line.is_done_after_signal();
    }
    auto reader = std::async(std::launch::async, [this] { return ends.take_slowly(777); });
    EXPECT_TRUE(eventually([&] { return line.is_done_after_signal(); }));
    restore();
    ends.writing->close();
    EXPECT_TRUE(begun);
    EXPECT_THAT(reader.get(), EndsWith("] " + big + RESET));
}

INSTANTIATE_TEST_SUITE_P(OfEveryKind, SlowOutput,
                         testing::ValuesIn(outputs_of({output_kind::pipe, output_kind::socket,
                                                       output_kind::unread_terminal})),
                         testing::PrintToStringParamName());

// --- an output that others have open, too

class SharedOutput : public testing::TestWithParam<output_kind> {};

TEST_P(SharedOutput, StaysBlockingForTheOthers) {
    output_ends ends(GetParam());
    descriptor others(dup(ends.writing->fd));
    int own = 0;
    {
        own_output diverted(ends.writing->fd);
        cloud_output_changed(STDOUT_FILENO);
        own = fcntl(STDOUT_FILENO, F_GETFL);
        LOG_INFO("text");
    }
    EXPECT_EQ((own & O_NONBLOCK) != 0, GetParam() != output_kind::socket);
    EXPECT_EQ(fcntl(others.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_THAT(ends.take(), EndsWith("] text" + RESET));
}

INSTANTIATE_TEST_SUITE_P(OfEveryKind, SharedOutput,
                         testing::Values(output_kind::pipe, output_kind::socket,
                                         output_kind::unread_terminal),
                         testing::PrintToStringParamName());

TEST(LogFile, IsWrittenFromWhereTheOthersStopped) {
    const std::string path = scratch_path("log");
    descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    {
        own_output diverted(file.fd);
        cloud_output_changed(STDOUT_FILENO);
        cloud_print("ours\n", 5);
        EXPECT_EQ(write(file.fd, "theirs\n", 7), 7);
        cloud_print("ours\n", 5);
    }
    EXPECT_EQ(read_file(path), "ours\ntheirs\nours\n");
}

// --- errno

class LogErrno : public testing::Test {
protected:
    // The errno that a log line, then a plain one, leave of EADDRINUSE on the output that is set.
    static std::vector<int> errno_after_lines(const std::string& text) {
        std::vector<int> left;
        errno = EADDRINUSE;
        LOG_ERROR("%s", text.c_str());
        left.push_back(errno);
        errno = EADDRINUSE;
        cloud_print(text.c_str(), text.size());
        left.push_back(errno);
        return left;
    }
};

TEST_F(LogErrno, IsKept) {
    log_capture log;
    EXPECT_THAT(errno_after_lines("text"), ElementsAre(EADDRINUSE, EADDRINUSE));
    EXPECT_THAT(errno_after_lines(std::string(1000, 'x')), ElementsAre(EADDRINUSE, EADDRINUSE));
}

TEST_F(LogErrno, IsKeptWhenMemoryIsShort) {
    log_capture log;
    fail_call failure("malloc");
    EXPECT_THAT(errno_after_lines(std::string(1000, 'x')), ElementsAre(EADDRINUSE, EADDRINUSE));
    EXPECT_TRUE(failure.happened());
}

TEST_F(LogErrno, IsKeptWhenTheOutputFails) {
    descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    std::vector<int> left;
    {
        own_output diverted(full.fd);
        left = errno_after_lines("lost");
    }
    EXPECT_THAT(left, ElementsAre(EADDRINUSE, EADDRINUSE));
}

TEST_F(LogErrno, IsKeptWhenTheOutputTakesNothing) {
    output_ends ends(output_kind::pipe);
    std::vector<int> left;
    {
        own_output diverted(ends.writing->fd);
        left = errno_after_lines(std::string(MORE_THAN_FITS, 'x'));
    }
    EXPECT_THAT(left, ElementsAre(EADDRINUSE, EADDRINUSE));
}

} // namespace
