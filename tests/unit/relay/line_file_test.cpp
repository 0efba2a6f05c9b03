#include "base/line_file.h"

#include "scratch_folder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>

#include <fcntl.h>
#include <sys/resource.h>

namespace relay {
namespace {

// Lets no file of this process grow beyond `bytes`, as a full disk does.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &former_);
        const rlimit narrow{bytes, former_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &narrow);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &former_); }

private:
    rlimit former_{};
};

class LinesInAFile : public testing::Test {
protected:
    LineFile open() {
        return {
            ::open(folder_.file("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600),
            "access log", lost_};
    }
    std::string text() const { return folder_.read("log"); }

    ScratchFolder folder_;
    const LostLines lost_ = std::make_shared<std::atomic<std::uint64_t>>();
};

TEST_F(LinesInAFile, StandAsTheyWereGiven) {
    auto file = open();
    file.write("one\ntwo\n");
    file.write("three\n");
    EXPECT_EQ(text(), "one\ntwo\nthree\n");
    EXPECT_EQ(*lost_, 0U);
}

TEST_F(LinesInAFile, OnAFullDiskAreLostAndCountedAndThatIsToldOnce) {
    constexpr rlim_t size = 4096; // what is captured of standard error stays below it
    const std::string before = std::string(size - 1, 'x') + '\n';
    folder_.write("log", before);
    auto file = open();
    testing::internal::CaptureStderr();
    {
        const FileSizeLimit full(size);
        file.write("lost\nlost\n");
        file.write("lost\n");
    }
    file.write("written\n");
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_THAT(told,
                testing::HasSubstr(" error lines of the access log are lost: File too large\n"));
    EXPECT_THAT(told, testing::HasSubstr(" info the access log is written again\n"));
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 2);
    EXPECT_EQ(text(), before + "written\n");
    EXPECT_EQ(*lost_, 3U);
}

TEST_F(LinesInAFile, AreNeverCut) {
    auto file = open();
    testing::internal::CaptureStderr();
    {
        const FileSizeLimit full(8);
        file.write("first\nsecond\nlost\n");
        file.write("lost\n");
        EXPECT_EQ(text(), "first\nse");
    }
    file.write("third\n");
    EXPECT_EQ(text(), "first\nsecond\nthird\n");
    EXPECT_EQ(*lost_, 2U);
    testing::internal::GetCapturedStderr();
}

} // namespace
} // namespace relay
