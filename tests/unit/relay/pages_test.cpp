#include "front/pages.h"

#include <gmock/gmock.h>

namespace relay {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const PageReason time_out{504, "The device did not answer in time.", "time_out"};

std::string body_of(const std::string& page) {
    return page.substr(page.find("\r\n\r\n") + 4);
}

TEST(Page, IsAWholeResponse) {
    const std::string page = make_page(time_out, true, true);
    EXPECT_THAT(page, StartsWith("HTTP/1.1 504 Gateway Timeout\r\n"));
    EXPECT_THAT(page, HasSubstr("\r\nContent-Type: text/html; charset=utf-8\r\n"));
    EXPECT_THAT(page, HasSubstr("\r\nCache-Control: no-store\r\n"));
    EXPECT_THAT(page,
                HasSubstr("\r\nContent-Length: " + std::to_string(body_of(page).size()) + "\r\n"));
    EXPECT_THAT(body_of(page), HasSubstr("<h1>504 Gateway Timeout</h1>"));
    EXPECT_THAT(body_of(page), HasSubstr("The device did not answer in time."));
}

TEST(Page, SaysWhetherTheConnectionStays) {
    EXPECT_THAT(make_page(time_out, true, true), HasSubstr("\r\nConnection: keep-alive\r\n"));
    EXPECT_THAT(make_page(time_out, false, true), HasSubstr("\r\nConnection: close\r\n"));
}

TEST(Page, ForHeadIsTheSameWithoutItsBody) {
    const std::string page = make_page(time_out, true, true);
    const std::string head = make_page(time_out, true, false);
    EXPECT_EQ(head + body_of(page), page);
    EXPECT_EQ(body_of(head), "");
}

TEST(Page, ShowsWhatAUserWroteAsText) {
    const std::string page =
        make_page({404, "No device named \"<script>alert(1)</script>\".", "x"}, false, true);
    EXPECT_THAT(page, Not(HasSubstr("<script>")));
    EXPECT_THAT(page, HasSubstr("&lt;script&gt;"));
}

TEST(Page, HasAPhraseForEveryStatusTheRelayGives) {
    for (const unsigned status : {400u, 404u, 413u, 431u, 501u, 502u, 503u, 504u, 505u}) {
        EXPECT_THAT(reason_phrase(status), Not(testing::AnyOf("", "<unknown-status>")));
        EXPECT_THAT(make_page({status, "", ""}, false, false),
                    StartsWith("HTTP/1.1 " + std::to_string(status) + " " +
                               std::string(reason_phrase(status)) + "\r\n"));
    }
}

} // namespace
} // namespace relay
