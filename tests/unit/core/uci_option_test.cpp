#include "core/uci_option.h"

#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "support/eventually.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
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

// The library's own printing adds a line end to a static buffer each time, without end.
TEST_F(Uci, EveryFailedReadIsOneLineOnStandardError) {
    log_capture log;
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(read("device_info.info.missing"), -1);
        EXPECT_EQ(read("missing.info.hw_version"), -1);
    }
    std::string line = "do not find the option: Entry not found\n";
    std::string other = "read UCI file error: Entry not found\n";
    EXPECT_EQ(log.errors(), line + other + line + other + line + other);
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

// --- the cache

constexpr char COMMITTED[] = "/etc/config/device_info";
constexpr char STAGED[] = "/tmp/.uci/device_info";
constexpr char VERSION[] = "device_info.info.hw_version";

std::string version_file(const std::string& version) {
    return "config info 'info'\n\toption hw_version '" + version + "'\n";
}

struct UciCache : Uci {
    UciCache() {
        static const bool isCovered = (cover_folder("/tmp", {".uci"}), true);
        EXPECT_TRUE(isCovered);
        write_file(COMMITTED, version_file("1.0"));
    }
    ~UciCache() override { remove_file("/tmp/.uci"); }

    std::string read_version() {
        memset(out, 0, sizeof out);
        EXPECT_EQ(readUCI(VERSION, out, sizeof out, &cache), 0);
        return out;
    }

    // Whether the next reading, which gives `version` again, asks libuci.
    bool reads_again(const std::string& version) {
        fail_call noContext("uci_alloc_context");
        log_capture log;
        memset(out, 0, sizeof out);
        int result = readUCI(VERSION, out, sizeof out, &cache);
        EXPECT_EQ(result == 0, !noContext.happened());
        EXPECT_TRUE(result != 0 || out == version);
        return noContext.happened();
    }

    static timespec modified() {
        struct stat file = {};
        EXPECT_EQ(stat(COMMITTED, &file), 0);
        return file.st_mtim;
    }
    static void set_modified(const timespec& time) {
        timespec times[2] = {time, time};
        EXPECT_EQ(utimensat(AT_FDCWD, COMMITTED, times, 0), 0);
    }

    static timespec tick() {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        return now;
    }

    // Changes one character of the file in a way that no time tells: as a write would, within the
    // kernel's tick of the one before.
    static void change_without_trace(const std::string& from, char to) {
        struct stat before = {};
        struct stat after = {};
        int file = open(COMMITTED, O_RDWR | O_CLOEXEC);
        fstat(file, &before);
        size_t size = static_cast<size_t>(before.st_size);
        void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        ASSERT_NE(mapped, MAP_FAILED);
        *static_cast<char*>(memmem(mapped, size, from.data(), from.size())) = to;
        munmap(mapped, size);
        fstat(file, &after);
        close(file);
        ASSERT_EQ(memcmp(&before.st_mtim, &after.st_mtim, sizeof before.st_mtim), 0);
        ASSERT_EQ(memcmp(&before.st_ctim, &after.st_ctim, sizeof before.st_ctim), 0);
    }

    moved_clock age{10000, CLOCK_REALTIME}; // of every file, at least
    uci_cache_t cache = {};
};

TEST_F(UciCache, ReadsAnUnchangedOptionOnce) {
    EXPECT_EQ(read_version(), "1.0");
    EXPECT_FALSE(reads_again("1.0"));
    EXPECT_FALSE(reads_again("1.0"));
}

TEST_F(UciCache, SeesAChangedFile) {
    EXPECT_EQ(read_version(), "1.0");
    write_file(COMMITTED, version_file("1.10"));
    EXPECT_EQ(read_version(), "1.10");
    EXPECT_FALSE(reads_again("1.10"));
}

TEST_F(UciCache, SeesAFileOfTheSameSizeInTheOthersPlace) {
    const timespec time = modified();
    EXPECT_EQ(read_version(), "1.0");
    write_file("/etc/config/new", version_file("2.0"));
    ASSERT_EQ(rename("/etc/config/new", COMMITTED), 0);
    set_modified(time);
    EXPECT_EQ(read_version(), "2.0");
}

TEST_F(UciCache, SeesAnotherTimeOfModification) {
    EXPECT_EQ(read_version(), "1.0");
    change_without_trace("1.0", '2');
    timespec time = modified();
    time.tv_sec -= 3600;
    set_modified(time);
    EXPECT_EQ(read_version(), "2.0");
}

TEST_F(UciCache, SeesAChangeThatWasDatedBack) {
    const timespec time = modified();
    EXPECT_EQ(read_version(), "1.0");
    const timespec written = tick();
    ASSERT_TRUE(eventually([&] {
        timespec now = tick();
        return memcmp(&now, &written, sizeof now) != 0;
    }));
    write_file(COMMITTED, version_file("2.0"));
    set_modified(time);
    EXPECT_EQ(read_version(), "2.0");
}

TEST_F(UciCache, SeesAStagedChangeAndThatItIsReverted) {
    EXPECT_EQ(read_version(), "1.0");
    write_file(STAGED, "device_info.info.hw_version='3.0'\n");
    EXPECT_EQ(read_version(), "3.0");
    EXPECT_FALSE(reads_again("3.0"));
    remove_file(STAGED);
    EXPECT_EQ(read_version(), "1.0");
    EXPECT_FALSE(reads_again("1.0"));
}

TEST_F(UciCache, SeesThatTheFileIsGone) {
    EXPECT_EQ(read_version(), "1.0");
    remove_file(COMMITTED);
    log_capture log;
    strcpy(out, "untouched");
    EXPECT_EQ(readUCI(VERSION, out, sizeof out, &cache), -1);
    EXPECT_STREQ(out, "untouched");
    EXPECT_THAT(log.errors(), Not(IsEmpty()));
}

// Written just now, as far as the reader can know.
TEST_F(UciCache, SeesAChangeThatTheTimesOfAFreshFileDoNotTell) {
    age.move(-10000);
    EXPECT_EQ(read_version(), "1.0");
    change_without_trace("1.0", '2');
    EXPECT_EQ(read_version(), "2.0");
    age.move(10000);
    EXPECT_EQ(read_version(), "2.0");
    EXPECT_FALSE(reads_again("2.0")) << "two seconds later no change can hide any more";
}

TEST_F(UciCache, DoesNotRelyOnAFreshStagedFileEither) {
    age.move(-10000);
    write_file(STAGED, "device_info.info.hw_version='3.0'\n");
    EXPECT_EQ(read_version(), "3.0");
    EXPECT_TRUE(reads_again("3.0"));
}

TEST_F(UciCache, DoesNotRelyOnAFileOfTheFuture) {
    age.move(-3600 * 1000);
    EXPECT_EQ(read_version(), "1.0");
    EXPECT_TRUE(reads_again("1.0"));
}

TEST_F(UciCache, AsksForAMissingOptionEachTime) {
    for (int time = 0; time < 2; time++) {
        log_capture log;
        strcpy(out, "untouched");
        EXPECT_EQ(readUCI("device_info.info.colour", out, sizeof out, &cache), -1);
        EXPECT_THAT(log.errors(), StartsWith("do not find the option: "));
        EXPECT_STREQ(out, "untouched");
    }
}

TEST_F(UciCache, CopiesLikeAReadingWithoutIt) {
    for (int time = 0; time < 2; time++) {
        strcpy(out, "9.9.9");
        EXPECT_EQ(readUCI(VERSION, out, sizeof out, &cache), 0);
        EXPECT_STREQ(out, "1.0.9");
        char small[3] = "ab";
        EXPECT_EQ(readUCI(VERSION, small, sizeof small, &cache), 0);
        EXPECT_STREQ(small, "1.");
    }
}

TEST_F(UciCache, CutsALongValueAtThirtyOneCharacters) {
    write_file(COMMITTED, version_file(std::string(100, 'v')));
    char large[100] = {};
    for (int time = 0; time < 2; time++) {
        EXPECT_EQ(readUCI(VERSION, large, sizeof large, &cache), 0);
        EXPECT_EQ(large, std::string(31, 'v'));
    }
}

TEST_F(UciCache, RefusesANullPath) {
    log_capture log;
    EXPECT_EQ(readUCI(nullptr, out, sizeof out, &cache), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("readUCI", "Ensure str != NULL failed.")));
}

} // namespace
