#include "base/json_reader.h"

#include "scratch_folder.h"

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>

#include <chrono>

namespace relay {
namespace {

using testing::StartsWith;

class Json : public testing::Test {
protected:
    JsonReader reader(std::string_view text, std::string where = "part.") {
        value_ = boost::json::parse(text);
        return {value_, std::move(where), error_};
    }

    boost::json::value value_;
    std::string error_;
};

TEST_F(Json, TextIsTaken) {
    std::string text = "before";
    auto object = reader(R"({ "name": "value" })");
    EXPECT_TRUE(object.text("name", text));
    EXPECT_EQ(text, "value");
    EXPECT_TRUE(object.finish());
}

TEST_F(Json, MissingMembersLeaveTheirTargetsAsTheyAre) {
    std::string text = "before";
    unsigned number = 7;
    std::chrono::seconds seconds{8};
    auto object = reader("{}");
    EXPECT_FALSE(object.text("name", text));
    object.number("count", number, 0, 10);
    object.seconds("time", seconds, 0, 10);
    EXPECT_EQ(object.member("else"), nullptr);
    EXPECT_TRUE(object.finish());
    EXPECT_EQ(text, "before");
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(seconds.count(), 8);
}

TEST_F(Json, NumbersHaveARange) {
    std::uint16_t number = 0;
    for (const int good : {1, 7, 10}) {
        auto object = reader("{ \"count\": " + std::to_string(good) + " }");
        object.number("count", number, 1, 10);
        EXPECT_TRUE(object.finish()) << error_;
        EXPECT_EQ(number, good);
    }
    for (const char* bad : {"0", "11", "-1", "1.5", "\"7\"", "null", "99999999999999999999"}) {
        error_.clear();
        number = 5;
        auto object = reader("{ \"count\": " + std::string(bad) + " }");
        object.number("count", number, 1, 10);
        EXPECT_FALSE(object.finish()) << bad;
        EXPECT_THAT(error_, StartsWith("part.count is "));
        EXPECT_THAT(error_, testing::EndsWith("; it must be a whole number from 1 to 10"));
        EXPECT_EQ(number, 5) << "changed by " << bad;
    }
}

TEST_F(Json, LargestNumberIsExact) {
    std::uint64_t number = 0;
    auto object = reader("{ \"count\": 18446744073709551615 }");
    object.number("count", number, 0, UINT64_MAX);
    EXPECT_TRUE(object.finish()) << error_;
    EXPECT_EQ(number, UINT64_MAX);
}

TEST_F(Json, UnknownMemberIsAMistake) {
    std::string text;
    auto object = reader(R"({ "name": "x", "nmae": "y" })");
    object.text("name", text);
    EXPECT_FALSE(object.finish());
    EXPECT_EQ(error_, "unknown option part.nmae");
}

TEST_F(Json, FirstMistakeStaysAndNothingIsTakenAfterIt) {
    std::string text = "before";
    auto object = reader(R"({ "a": 1, "b": "taken?", "unknown": 0 })");
    EXPECT_FALSE(object.text("a", text));
    EXPECT_FALSE(object.text("b", text));
    object.fail("b", "is not looked at");
    EXPECT_FALSE(object.finish());
    EXPECT_EQ(error_, "part.a is 1; it must be a text");
    EXPECT_EQ(text, "before");
}

TEST_F(Json, FailureOfAMissingMemberQuotesNoValue) {
    auto object = reader("{}");
    object.fail("name", "must name a file");
    EXPECT_EQ(error_, "part.name must name a file");
}

TEST_F(Json, OtherThanAnObjectIsAMistakeAndReadsAsEmpty) {
    std::string text = "before";
    auto part = reader("[1]");
    EXPECT_FALSE(part.text("name", text));
    EXPECT_FALSE(part.finish());
    EXPECT_EQ(error_, "part must be a JSON object");
    error_.clear();
    auto whole = reader("1", "");
    EXPECT_FALSE(whole.finish());
    EXPECT_EQ(error_, "it must be a JSON object");
}

class JsonFile : public testing::Test {
protected:
    ScratchFolder folder_;
    std::string error_;
};

TEST_F(JsonFile, MayHaveCommentsAndTrailingCommas) {
    const auto value =
        parse_json("// one\n{ /* two */ \"a\": [1, 2,], }\n// three\n", "path", error_);
    ASSERT_TRUE(value) << error_;
    EXPECT_EQ(value->at("a").as_array().size(), 2u);
}

TEST_F(JsonFile, MistakeIsFoundByItsLine) {
    for (const auto& [text, line] :
         {std::pair("{\n\"a\": 1\n\"b\": 2\n}", "3"), std::pair("{\n\n", "3"),
          std::pair("{}\n{}", "2"), std::pair("", "1"), std::pair("{} x", "1"),
          std::pair("{\n/* a", "2"), std::pair("{\n\n// a", "3")}) {
        EXPECT_FALSE(parse_json(text, "path", error_)) << text;
        EXPECT_THAT(error_,
                    StartsWith(std::string("path is not valid JSON near line ") + line + ": "));
    }
}

TEST_F(JsonFile, ThatCannotBeReadIsNamedWithTheReason) {
    EXPECT_FALSE(read_file(folder_.file("none"), error_));
    EXPECT_EQ(error_, folder_.file("none") + " cannot be read: No such file or directory");
    EXPECT_FALSE(read_file(folder_.path(), error_));
    EXPECT_EQ(error_, folder_.path() + " cannot be read: Is a directory");
}

TEST_F(JsonFile, BytesAreReadAsTheyStand) {
    const std::string bytes("a\0\r\n\xFF", 5);
    EXPECT_EQ(read_file(folder_.write("a", bytes), error_), bytes);
}

} // namespace
} // namespace relay
