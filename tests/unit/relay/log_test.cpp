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

TEST(Log, WhatReordersOrSplitsALineIsShownByItsBytes) {
    const auto text_of = [](std::string_view text) {
        const std::string line = shown([text] { log::info(text); });
        return line.substr(line.find(" info ") + 6);
    };
    EXPECT_EQ(text_of("\xC2\x9b"
                      "2J"),
              "\\xc2\\x9b2J\n"); // C1: begins a command to a terminal
    EXPECT_EQ(text_of("\u202Etxt.exe\u2066"), "\\xe2\\x80\\xaetxt.exe\\xe2\\x81\\xa6\n");
    EXPECT_EQ(text_of("\u200F\u061C\u2028"), "\\xe2\\x80\\x8f\\xd8\\x9c\\xe2\\x80\\xa8\n");
    EXPECT_EQ(text_of("\u00A0\u2027\u202F\u20AC\U0001F600"),
              "\u00A0\u2027\u202F\u20AC\U0001F600\n");
}

TEST(Log, WhatIsNotUtf8IsShownByItsBytes) {
    EXPECT_THAT(shown([] { log::info("\xC3", "(\x80\xC0\xAF\xF5"); }),
                testing::EndsWith(" info \\xc3(\\x80\\xc0\\xaf\\xf5\n"));
    EXPECT_THAT(shown([] { log::info("cut \xE2\x82"); }),
                testing::EndsWith(" info cut \\xe2\\x82\n"));
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
