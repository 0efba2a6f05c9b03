#include "front/forwarded.h"

#include "base/text.h"

#include <gtest/gtest.h>

namespace relay {
namespace {

// The headers of a request that a proxy at 10.0.0.1 has passed on; 10.0.0.0/8 is trusted.
class ForwardedHeaders : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(trusted_.add("10.0.0.0/8")); }

    void add(const char* name, const char* value) { head_.insert(name, value); }
    std::string user() {
        const auto address = read_forwarded(head_, trusted_).user;
        return address ? to_text(*address) : "";
    }
    std::string user_in(const char* value) {
        head_.set("X-Forwarded-For", value);
        return user();
    }
    std::string_view scheme_in(const char* value) {
        head_.set("X-Forwarded-Proto", value);
        return read_forwarded(head_, trusted_).scheme;
    }

    boost::beast::http::request_header<> head_;
    Networks trusted_;
};

TEST_F(ForwardedHeaders, NameNobodyWhenTheyAreNotThere) {
    EXPECT_EQ(user(), "");
    EXPECT_EQ(read_forwarded(head_, trusted_).scheme, "");
    add("X_Forwarded_For", "192.0.2.1");
    add("Forwarded", "for=192.0.2.1;proto=https");
    EXPECT_EQ(user(), "") << "no proxy writes those in the place of X-Forwarded-For";
}

TEST_F(ForwardedHeaders, NameTheUser) {
    EXPECT_EQ(user_in("192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(user_in("2001:db8::1"), "2001:db8::1");
    EXPECT_EQ(user_in("::ffff:192.0.2.1"), "192.0.2.1");
}

TEST_F(ForwardedHeaders, NameTheUserWithOrWithoutAPort) {
    EXPECT_EQ(user_in("192.0.2.1:1234"), "192.0.2.1");
    EXPECT_EQ(user_in("[2001:db8::1]"), "2001:db8::1");
    EXPECT_EQ(user_in("[2001:db8::1]:1234"), "2001:db8::1");
}

TEST_F(ForwardedHeaders, AreBelievedFromTheNearestProxyBackwards) {
    EXPECT_EQ(user_in("6.6.6.6, 192.0.2.1"), "192.0.2.1") << "the user wrote the first one";
    EXPECT_EQ(user_in("6.6.6.6, 192.0.2.1, 10.0.0.2, 10.0.0.3"), "192.0.2.1");
    EXPECT_EQ(user_in("6.6.6.6,192.0.2.1 ,\t10.0.0.2,"), "192.0.2.1");
    EXPECT_EQ(user_in("nonsense, 192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(user_in("10.0.0.4, 192.0.2.1, 10.0.0.2"), "192.0.2.1");
}

TEST_F(ForwardedHeaders, MayNameProxiesOnly) {
    EXPECT_EQ(user_in("10.0.0.2"), "10.0.0.2");
    EXPECT_EQ(user_in("10.0.0.2, 10.0.0.3"), "10.0.0.2");
}

TEST_F(ForwardedHeaders, AreReadUpToWhatIsNoAddress) {
    for (const char* value :
         {"unknown", "_hidden", "", ",", " ", "192.0.2.1, unknown", "192.0.2.1 192.0.2.2",
          "192.0.2", "[::1", "::1]:80", "user@[::1]:1", "192.0.2.1:port"})
        EXPECT_EQ(user_in(value), "") << value;
    EXPECT_EQ(user_in("192.0.2.1, unknown, 10.0.0.2"), "10.0.0.2");
}

TEST_F(ForwardedHeaders, OfOneNameAreOneList) {
    add("X-Forwarded-For", "6.6.6.6, 192.0.2.1");
    add("X-Other", "192.0.2.3");
    add("x-forwarded-for", "10.0.0.2, 10.0.0.3");
    EXPECT_EQ(user(), "192.0.2.1");
    add("X-Forwarded-For", "192.0.2.9");
    EXPECT_EQ(user(), "192.0.2.9");
}

TEST_F(ForwardedHeaders, NameTheScheme) {
    EXPECT_EQ(scheme_in("https"), "https");
    EXPECT_EQ(scheme_in("HTTP"), "http");
    EXPECT_EQ(scheme_in("http, https"), "https") << "the last one is the proxy's";
    for (const char* value : {"", "ftp", "https://", "httpss", "https http"})
        EXPECT_EQ(scheme_in(value), "") << value;
}

} // namespace
} // namespace relay
