// What programs see of libubus.h, from C and from C++.

#include <type_traits>

#include <gtest/gtest.h>
#include <libubus.h>

extern "C" ubus_object* object_in_c(void);

namespace {

int answer(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
    return 0;
}

const blobmsg_policy policy[] = {{"port", BLOBMSG_TYPE_INT32}};
const ubus_method methods[] = {UBUS_METHOD("reload", answer, policy),
                               UBUS_METHOD_NOARG("stop", answer)};

void expect_reload_and_stop(const ubus_method* of, int policies) {
    EXPECT_STREQ(of[0].name, "reload");
    EXPECT_NE(of[0].handler, nullptr);
    EXPECT_EQ(of[0].n_policy, policies);
    EXPECT_STREQ(of[1].name, "stop");
    EXPECT_NE(of[1].handler, nullptr);
    EXPECT_EQ(of[1].policy, nullptr);
    EXPECT_EQ(of[1].n_policy, 0);
}

TEST(Interface, MacrosFillMethodsAndTypesInCxx) {
    const ubus_object_type type = UBUS_OBJECT_TYPE("cxx", methods);
    EXPECT_STREQ(type.name, "cxx");
    EXPECT_EQ(type.id, 0U);
    EXPECT_EQ(type.n_methods, 2);
    expect_reload_and_stop(type.methods, 1);
}

TEST(Interface, MacrosFillMethodsAndTypesInC) {
    const ubus_object* object = object_in_c();
    EXPECT_EQ(object->type->n_methods, 2);
    EXPECT_EQ(object->type->methods, object->methods);
    expect_reload_and_stop(object->methods, 2);
}

TEST(Interface, TheContextShowsItsSocketToUloop) {
    static_assert(std::is_same_v<decltype(ubus_context::sock), uloop_fd>);
    static_assert(std::is_same_v<decltype(ubus_context::local_id), uint32_t>);
    static_assert(std::is_same_v<decltype(ubus_context::request_seq), uint16_t>);
    static_assert(std::is_same_v<decltype(ubus_context::connection_lost), ubus_connect_handler_t>);
    EXPECT_STREQ(UBUS_UNIX_SOCKET, "/var/run/ubus.sock");
}

struct Text {
    int status;
    const char* text;
};
class StatusTexts : public testing::TestWithParam<Text> {};

TEST_P(StatusTexts, AreThoseOfTheProtocol) {
    EXPECT_STREQ(ubus_strerror(GetParam().status), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    All, StatusTexts,
    testing::Values(Text{0, "Success"}, Text{1, "Invalid command"}, Text{2, "Invalid argument"},
                    Text{3, "Method not found"}, Text{4, "Not found"}, Text{5, "No response"},
                    Text{6, "Permission denied"}, Text{7, "Request timed out"},
                    Text{8, "Operation not supported"}, Text{9, "Unknown error"},
                    Text{10, "Connection failed"}, Text{11, "Out of memory"},
                    Text{12, "Parsing message data failed"}, Text{13, "System error"},
                    Text{14, "Unknown error: 14"}, Text{100, "Unknown error: 100"},
                    Text{-1, "Unknown error: -1"}, Text{INT32_MIN, "Unknown error: -2147483648"}));

} // namespace
