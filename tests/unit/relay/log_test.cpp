#include "base/log.h"

#include "failing_new.h"

#include <gmock/gmock.h>

namespace relay {
namespace {

using testing::MatchesRegex;

template <typename Write>
std::string shown(const Write& write) {
    testing::internal::CaptureStderr();
    write();
    return testing::internal::GetCapturedStderr();
}

TEST(Log, LineHasTimeLevelAndText) {
    EXPECT_THAT(shown([] { log::info("port ", 8080, std::string(" is open")); }),
                MatchesRegex("[0-9-]+T[0-9:.]+Z info port 8080 is open\n"));
    EXPECT_THAT(shown([] { log::warning("w"); }), MatchesRegex("[^ ]+ warning w\n"));
    EXPECT_THAT(shown([] { log::error("e"); }), MatchesRegex("[^ ]+ error e\n"));
}

TEST(Log, WhatComesFromOutsideCannotBreakALineOrATerminal) {
    EXPECT_THAT(shown([] { log::info("a\r\nb\x1b[0m\x7f\xC3\xA4", std::string_view("\0", 1)); }),
                testing::EndsWith(" info a\\x0d\\x0ab\\x1b[0m\\x7f\xC3\xA4\\x00\n"));
}

TEST(Log, LineWithoutMemoryIsLostAndNothingElse) {
    const std::string text(1000, 'x');
    int nth = 0;
    for (bool happened = true; happened;) {
        const std::string line = shown([&] {
            const FailingNew failure(++nth);
            log::info(text);
            happened = failure.happened();
        });
        EXPECT_EQ(line.empty(), happened) << nth;
    }
    EXPECT_GT(nth, 1);
}

} // namespace
} // namespace relay
