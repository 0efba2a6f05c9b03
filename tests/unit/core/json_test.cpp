#include "core/json.h"

#include <gmock/gmock.h>
#include <memory>
#include <string>

#include "support/failing_calls.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct json_deleter {
    void operator()(json_object* object) const { jsonObjectPut(object); }
};
using json_ptr = std::unique_ptr<json_object, json_deleter>;

json_ptr parse(const std::string& text) {
    return json_ptr(jsonParseStr(text.c_str(), text.size()));
}

const char* value_of(const json_ptr& object, const char* key) {
    return getValueFromJsonObj(object.get(), key);
}

// --- jsonParseStr ---

TEST(JsonParse, GivesTheObjectOfAText) {
    json_ptr object = parse("{\"device_id\": \"8001\"}");
    EXPECT_STREQ(value_of(object, "device_id"), "8001");
}

TEST(JsonParse, RefusesANullText) {
    log_capture log;
    EXPECT_EQ(jsonParseStr(nullptr, 5), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("jsonParseStr", "Buf is NULL!\n")));
}

TEST(JsonParse, FailsWhenTheTokenerCannotBeMade) {
    log_capture log;
    fail_call failure("json_tokener_new");
    EXPECT_EQ(jsonParseStr("{}", 2), nullptr);
    EXPECT_TRUE(failure.happened());
    EXPECT_THAT(log.lines(), ElementsAre(error_line("jsonParseStr", "Create tokener failed.\n")));
}

TEST(JsonParse, PrintsAllOfATextThatIsNoJson) {
    for (const std::string& text :
         {std::string("{\"open\": "), std::string("Command failed: Not found"), std::string(""),
          std::string("{\"a\": 1]"), "{" + std::string(3000, 'x'), std::string("%s%n")}) {
        log_capture log;
        EXPECT_EQ(jsonParseStr(text.c_str(), text.size()), nullptr) << text;
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line("jsonParseStr", "Parse buf failed," + text + ".\n")));
    }
}

TEST(JsonParse, DoesNotLookAtTheLength) {
    json_ptr shorter(jsonParseStr("{\"a\": \"b\"}", 1));
    EXPECT_STREQ(value_of(shorter, "a"), "b");
    json_ptr longer(jsonParseStr("{\"a\": \"b\"}", 1000000));
    EXPECT_STREQ(value_of(longer, "a"), "b");
}

// --- getValueFromJsonObj ---

TEST(JsonValue, OfAStringIsTheStringItself) {
    json_ptr object = parse(R"({"a": "", "b": "x\"y\u00e4"})");
    EXPECT_STREQ(value_of(object, "a"), "");
    EXPECT_STREQ(value_of(object, "b"), "x\"y\xc3\xa4");
}

TEST(JsonValue, ThatIsNotAStringIsItsJsonText) {
    json_ptr object = parse(R"({"int": 8001, "neg": -5, "yes": true, "no": false, "list": [1, 2],
                  "inner": {"k": "v"}})");
    EXPECT_STREQ(value_of(object, "int"), "8001");
    EXPECT_STREQ(value_of(object, "neg"), "-5");
    EXPECT_STREQ(value_of(object, "yes"), "true");
    EXPECT_STREQ(value_of(object, "no"), "false");
    EXPECT_STREQ(value_of(object, "list"), "[ 1, 2 ]");
    EXPECT_STREQ(value_of(object, "inner"), R"({ "k": "v" })");
}

TEST(JsonValue, OfNullIsTheTextNull) {
    json_ptr object = parse(R"({"a": null, "b": "after"})");
    EXPECT_STREQ(value_of(object, "a"), "null");
    EXPECT_STREQ(value_of(object, "b"), "after");
}

TEST(JsonValue, IsTheLastOneOfANameThatComesTwice) {
    json_ptr object = parse(R"({"a": "first", "b": 1, "a": "last"})");
    EXPECT_STREQ(value_of(object, "a"), "last");
}

TEST(JsonValue, OfAMissingNameIsNullWithoutAWord) {
    json_ptr object = parse(R"({"device_id": "8001", "inner": {"mac": "x"}})");
    log_capture log;
    for (const char* name : {"mac", "device_i", "device_id2", ""}) {
        EXPECT_EQ(value_of(object, name), nullptr) << name;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(JsonValue, OfSomethingWithoutMembersIsNull) {
    for (const char* text : {"[1, 2]", "7", "\"text\"", "true"}) {
        json_ptr object = parse(text);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(value_of(object, "a"), nullptr) << text;
    }
}

TEST(JsonValue, RefusesNullArguments) {
    json_ptr object = parse("{}");
    log_capture log;
    EXPECT_EQ(getValueFromJsonObj(nullptr, "a"), nullptr);
    EXPECT_EQ(getValueFromJsonObj(object.get(), nullptr), nullptr);
    auto refusal = error_line("getValueFromJsonObj", "jsonObj or name is NULL!\n");
    EXPECT_THAT(log.lines(), ElementsAre(refusal, refusal));
}

// --- jsonObjectPut ---

TEST(JsonPut, OfNullIsOnlyLogged) {
    log_capture log;
    jsonObjectPut(nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("jsonObjectPut", "Free null obj\n")));
}

TEST(JsonPut, ReleasesWithoutAWord) {
    json_object* object = jsonParseStr("{\"a\": [1, 2, 3]}", 0);
    log_capture log;
    jsonObjectPut(object); // the leak check of the whole program sees the rest
    EXPECT_THAT(log.lines(), IsEmpty());
}

} // namespace
