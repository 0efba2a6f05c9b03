#include "base/file_watch.h"

#include "scratch_folder.h"

#include <gtest/gtest.h>

#include <cstdio>

#include <unistd.h>

namespace relay {
namespace {

class FilesWatched : public testing::Test {
protected:
    void SetUp() override {
        folder_.write("certificate", "1");
        folder_.write("key", "1");
    }

    // As one that writes a new file and puts it in the old one's place.
    void replace(const std::string& name, const std::string& text) {
        folder_.write("new", text);
        ASSERT_EQ(rename(folder_.file("new").c_str(), folder_.file(name).c_str()), 0);
    }

    ScratchFolder folder_;
};

TEST_F(FilesWatched, ThatStayAsTheyAreHaveNotChanged) {
    FileWatch watch({folder_.file("certificate"), folder_.file("key"), ""});
    for (int look = 0; look < 3; ++look)
        EXPECT_FALSE(watch.has_changed());
}

TEST_F(FilesWatched, HaveChangedOnceWhenOneIsWrittenOrReplaced) {
    FileWatch watch({folder_.file("certificate"), folder_.file("key")});
    folder_.write("key", "22");
    EXPECT_FALSE(watch.has_changed()) << "it may still be written";
    EXPECT_TRUE(watch.has_changed());
    EXPECT_FALSE(watch.has_changed());
    replace("certificate", "2");
    EXPECT_FALSE(watch.has_changed());
    EXPECT_TRUE(watch.has_changed());
    EXPECT_FALSE(watch.has_changed());
}

TEST_F(FilesWatched, AreWaitedForUntilTheLastOneIsWritten) {
    FileWatch watch({folder_.file("certificate"), folder_.file("key")});
    replace("certificate", "2");
    EXPECT_FALSE(watch.has_changed());
    replace("key", "2");
    EXPECT_FALSE(watch.has_changed());
    EXPECT_TRUE(watch.has_changed());
}

TEST_F(FilesWatched, MayBeMissingForAWhile) {
    FileWatch watch({folder_.file("certificate")});
    ASSERT_EQ(unlink(folder_.file("certificate").c_str()), 0);
    EXPECT_FALSE(watch.has_changed());
    folder_.write("certificate", "22");
    EXPECT_FALSE(watch.has_changed());
    EXPECT_TRUE(watch.has_changed());
}

TEST_F(FilesWatched, ThatWereReadMeanwhileAreKnown) {
    FileWatch watch({folder_.file("key")});
    folder_.write("key", "22");
    watch.forget_changes();
    EXPECT_FALSE(watch.has_changed());
    EXPECT_FALSE(watch.has_changed());
}

} // namespace
} // namespace relay
