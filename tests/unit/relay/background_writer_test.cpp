#include "base/background_writer.h"

#include "support/eventually.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <mutex>
#include <stdexcept>

namespace relay {
namespace {

using namespace std::chrono_literals;

// What the writer has written, on its own thread.
struct Written {
    std::mutex mutex;
    std::string text;
    std::atomic<int> calls{0};

    std::string all() {
        const std::lock_guard lock(mutex);
        return text;
    }
    void add(std::string_view lines) {
        const std::lock_guard lock(mutex);
        text += lines;
        ++calls;
    }
};

TEST(BackgroundWriter, WritesAllInItsOrder) {
    Written written;
    BackgroundWriter writer([&](std::string_view lines) { written.add(lines); });
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        const std::string line = std::to_string(i) + '\n';
        ASSERT_TRUE(writer.add(line));
        expected += line;
    }
    EXPECT_TRUE(writer.finish(PATIENCE));
    EXPECT_EQ(written.all(), expected);
}

TEST(BackgroundWriter, KeepsNobodyWaitingWhileItsSinkHangs) {
    std::promise<void> release;
    const auto released = release.get_future().share();
    Written written;
    BackgroundWriter writer([&, released](std::string_view lines) {
        written.calls++;
        released.wait();
        written.add(lines);
    });
    ASSERT_TRUE(writer.add("first\n"));
    ASSERT_TRUE(eventually([&] { return written.calls > 0; })) << "it hangs in its sink";
    const std::string line(1023, 'x');
    std::size_t taken = 0;
    while (taken < 10000 && writer.add(line + '\n'))
        ++taken;
    EXPECT_EQ(taken, 1024U) << "1 MiB waits";
    EXPECT_FALSE(writer.finish(1ms));
    release.set_value();
    EXPECT_TRUE(writer.finish(PATIENCE));
    EXPECT_EQ(written.all().size(), 6 + 1024 * 1024U);
    EXPECT_TRUE(writer.add(line)) << "there is room again";
    EXPECT_TRUE(writer.finish(PATIENCE));
}

TEST(BackgroundWriter, WritesWhatIsLeftWhenItIsGone) {
    std::promise<void> release;
    const auto released = release.get_future().share();
    const auto written = std::make_shared<Written>();
    const std::weak_ptr<Written> sink_s = written;
    {
        BackgroundWriter writer([written, released](std::string_view lines) {
            released.wait();
            written->add(lines);
        });
        ASSERT_TRUE(writer.add("first\n"));
        ASSERT_TRUE(writer.add("second\n"));
    }
    release.set_value();
    EXPECT_TRUE(eventually([&] { return written->all() == "first\nsecond\n"; }));
    EXPECT_TRUE(eventually([&] { return sink_s.use_count() == 1; })) << "the sink goes";
}

TEST(BackgroundWriter, GoesOnAfterASinkThatFailed) {
    Written written;
    testing::internal::CaptureStderr();
    BackgroundWriter writer([&](std::string_view lines) {
        if (lines == "bad\n")
            throw std::runtime_error("no");
        written.add(lines);
    });
    ASSERT_TRUE(writer.add("bad\n"));
    EXPECT_TRUE(writer.finish(PATIENCE));
    ASSERT_TRUE(writer.add("good\n"));
    EXPECT_TRUE(writer.finish(PATIENCE));
    EXPECT_EQ(written.all(), "good\n");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("a log cannot be written: no"),
              std::string::npos);
}

TEST(BackgroundWriter, TakesNoSignals) {
    std::atomic<bool> is_blocked{false};
    BackgroundWriter writer([&](std::string_view) {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        is_blocked = sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGHUP);
    });
    ASSERT_TRUE(writer.add("x\n"));
    EXPECT_TRUE(writer.finish(PATIENCE));
    EXPECT_TRUE(is_blocked);
    sigset_t ours;
    pthread_sigmask(SIG_BLOCK, nullptr, &ours);
    EXPECT_FALSE(sigismember(&ours, SIGTERM));
}

} // namespace
} // namespace relay
