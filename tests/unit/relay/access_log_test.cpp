#include "base/access_log.h"

#include "failing_new.h"
#include "scratch_folder.h"
#include "support/eventually.h"

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>

#include <algorithm>
#include <new>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {
namespace {

using testing::IsEmpty;
using testing::StartsWith;

AccessRecord record() {
    AccessRecord record;
    record.time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1769903999123));
    record.user = "192.0.2.1";
    record.device = "router-1";
    record.method = "GET";
    record.target = "/index.html?a=b";
    record.status = 200;
    record.request_bytes = 3;
    record.answer_bytes = 12345678901;
    record.duration = std::chrono::microseconds(1234567);
    return record;
}

class AccessLogFile : public testing::Test {
protected:
    void open(const std::string& name = "access.log") {
        ASSERT_TRUE(log_.open(folder_.file(name), error_)) << error_;
    }
    std::string written(const std::string& name = "access.log") {
        log_.finish();
        return folder_.read(name);
    }

    ScratchFolder folder_;
    AccessLog log_;
    std::string error_;
};

TEST_F(AccessLogFile, HasOneLineARequest) {
    open();
    log_.add(record());
    EXPECT_EQ(written(),
              "{\"time\":\"2026-01-31T23:59:59.123Z\",\"user\":\"192.0.2.1\","
              "\"device\":\"router-1\",\"method\":\"GET\",\"target\":\"/index.html?a=b\","
              "\"status\":200,\"request_bytes\":3,\"answer_bytes\":12345678901,"
              "\"ms\":1234.567}\n");
}

TEST_F(AccessLogFile, SaysWhyTheRelayAnsweredItself) {
    open();
    auto refused = record();
    refused.status = 504;
    refused.note = "time_out";
    log_.add(refused);
    const auto line = boost::json::parse(written());
    EXPECT_EQ(line.at("note").as_string(), "time_out");
}

TEST_F(AccessLogFile, LineThatLacksMemoryLeavesNoPart) {
    open();
    const std::string target(300, 'x');
    auto requested = record();
    requested.target = target;
    int nth = 0;
    for (bool happened = true; happened;) {
        const FailingNew failure(++nth);
        try {
            log_.add(requested);
        } catch (const std::bad_alloc&) {
        }
        happened = failure.happened();
    }
    EXPECT_GT(nth, 3);
    std::istringstream lines(written());
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_EQ(boost::json::parse(line).at("target").as_string(), target);
    EXPECT_GT(count, 0);
}

TEST_F(AccessLogFile, LineStaysOneLineWhateverTheUserSends) {
    open();
    auto hostile = record();
    hostile.target = "/\"},\n{\"status\":200\x01\\";
    log_.add(hostile);
    const std::string text = written();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    EXPECT_EQ(boost::json::parse(text).at("target").as_string(), hostile.target);
}

TEST_F(AccessLogFile, LineIsJsonWhateverBytesTheUserSends) {
    open();
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    auto hostile = record();
    hostile.target = all;
    log_.add(hostile);
    const std::string text = written();
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c >= 0; }))
        << "it is ASCII";
    boost::json::parse(text); // throws where it is not
}

TEST_F(AccessLogFile, IsWrittenByFlush) {
    open();
    log_.add(record());
    EXPECT_THAT(folder_.read("access.log"), IsEmpty());
    log_.flush();
    EXPECT_TRUE(eventually([this] { return folder_.read("access.log").ends_with("}\n"); }));
}

TEST_F(AccessLogFile, IsWrittenEarlyWhenMuchHasGathered) {
    open();
    auto large = record();
    const std::string target(32 << 10, 'x');
    large.target = target;
    log_.add(large);
    EXPECT_THAT(folder_.read("access.log"), IsEmpty());
    log_.add(large);
    EXPECT_TRUE(eventually([&] { return folder_.read("access.log").size() > 2 * target.size(); }));
}

TEST_F(AccessLogFile, IsWrittenWhenTheLogEnds) {
    {
        AccessLog log;
        ASSERT_TRUE(log.open(folder_.file("other.log"), error_));
        log.add(record());
        log.finish();
    }
    EXPECT_THAT(folder_.read("other.log"), StartsWith("{\"time\""));
}

TEST_F(AccessLogFile, GoesOnBehindWhatIsThere) {
    folder_.write("access.log", "before\n");
    open();
    log_.add(record());
    EXPECT_THAT(written(), StartsWith("before\n{"));
}

TEST_F(AccessLogFile, OpenedAgainFollowsARotation) {
    open();
    log_.add(record());
    std::filesystem::rename(folder_.file("access.log"), folder_.file("access.log.1"));
    open(); // what was added before goes to the former file
    log_.add(record());
    const std::string line = written("access.log");
    EXPECT_THAT(line, StartsWith("{\"time\""));
    EXPECT_TRUE(eventually([&] { return folder_.read("access.log.1") == line; }));
}

TEST_F(AccessLogFile, ThatCannotBeOpenedLeavesTheFormerOne) {
    open();
    EXPECT_FALSE(log_.open(folder_.file("none/access.log"), error_));
    EXPECT_EQ(error_,
              folder_.file("none/access.log") + " cannot be written: No such file or directory");
    log_.add(record());
    EXPECT_THAT(written(), StartsWith("{\"time\""));
}

TEST_F(AccessLogFile, ThatIsTooSlowLosesLinesAndCountsThem) {
    const std::string path = folder_.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    open("pipe");
    testing::internal::CaptureStderr();
    auto large = record();
    const std::string target(1000, 'x');
    large.target = target;
    std::uint64_t added = 0;
    for (; log_.lost_lines() == 0 && added < 10000; ++added)
        log_.add(large);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::EndsWith(" error lines of the access log are lost: they come faster than "
                                  "they are written\n"));
    const std::uint64_t lost = log_.lost_lines();
    EXPECT_GT(lost, 0U);
    std::string all;
    EXPECT_TRUE(eventually([&] {
        char bytes[65536];
        for (ssize_t got; (got = read(reader, bytes, sizeof bytes)) > 0;)
            all.append(bytes, static_cast<std::size_t>(got));
        return std::count(all.begin(), all.end(), '\n') == static_cast<long>(added - lost);
    }));
    close(reader);
}

TEST_F(AccessLogFile, MayBeTurnedOff) {
    open();
    ASSERT_TRUE(log_.open("", error_));
    log_.add(record());
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(AccessLogFile, IsNotReadableByEverybody) {
    open();
    using std::filesystem::perms;
    const auto allowed = std::filesystem::status(folder_.file("access.log")).permissions();
    EXPECT_EQ(allowed & perms::others_all, perms::none);
}

TEST(AccessLog, MayBeStandardOutput) {
    testing::internal::CaptureStdout();
    {
        AccessLog log;
        std::string error;
        ASSERT_TRUE(log.open("-", error));
        log.add(record());
        log.finish();
    }
    std::puts("still open");
    std::fflush(stdout);
    const std::string shown = testing::internal::GetCapturedStdout();
    EXPECT_THAT(shown, StartsWith("{\"time\""));
    EXPECT_THAT(shown, testing::EndsWith("}\nstill open\n"));
}

} // namespace
} // namespace relay
