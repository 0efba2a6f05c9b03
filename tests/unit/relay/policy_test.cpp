#include "devices/policy.h"

#include "scratch_folder.h"

#include <gmock/gmock.h>

namespace relay {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* hash_of_abc =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

Hello hello(std::string id, std::string mac = "AABBCCDDEEFF", std::string_view token = "abc") {
    return {std::move(id), std::move(mac), "FW1", sha256(token)};
}

class PolicyFile : public testing::Test {
protected:
    Policy loaded(std::string_view text) {
        const auto policy = load_policy(folder_.write("policy.json", text), error_);
        EXPECT_TRUE(policy) << error_;
        return policy.value_or(Policy{});
    }

    // What is said about a text, behind the file's name.
    std::string mistake_in(std::string_view text) {
        const std::string path = folder_.write("policy.json", text);
        EXPECT_FALSE(load_policy(path, error_)) << text;
        EXPECT_THAT(error_, StartsWith(path));
        return error_.substr(std::min(error_.size(), path.size()));
    }

    ScratchFolder folder_;
    std::string error_;
};

TEST_F(PolicyFile, MayAdmitAll) {
    const Policy policy = loaded("{ \"admit\": \"all\" } // for now");
    EXPECT_EQ(policy.objection(hello("anything")), "");
}

TEST_F(PolicyFile, MayAdmitNobody) {
    const Policy policy = loaded("{ \"devices\": [] }");
    EXPECT_EQ(policy.objection(hello("anything")), "it is not on the policy's list");
}

TEST_F(PolicyFile, AdmitsADeviceByIdInAnyCase) {
    const Policy policy = loaded(R"({ "devices": [ { "device_id": "Router-A" } ] })");
    EXPECT_EQ(policy.objection(hello("Router-A")), "");
    EXPECT_EQ(policy.objection(hello("rOUTER-a")), "");
    EXPECT_EQ(policy.objection(hello("Router-AA")), "it is not on the policy's list");
}

TEST_F(PolicyFile, MayPinTheMac) {
    const Policy policy =
        loaded(R"({ "devices": [ { "device_id": "a", "mac": "aabbccddeeff" } ] })");
    EXPECT_EQ(policy.objection(hello("a", "AABBCCDDEEFF")), "");
    EXPECT_EQ(policy.objection(hello("a", "AABBCCDDEEFE")), "its MAC is not the policy's");
    EXPECT_EQ(policy.objection(hello("a", "")), "its MAC is not the policy's");
}

TEST_F(PolicyFile, MayPinTheTokenByItsHash) {
    for (const std::string& hash :
         {std::string(hash_of_abc),
          std::string("BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD")}) {
        const Policy policy =
            loaded(R"({ "devices": [ { "device_id": "a", "token_sha256": ")" + hash + "\" } ] }");
        EXPECT_EQ(policy.objection(hello("a", "", "abc")), "");
        EXPECT_EQ(policy.objection(hello("a", "", "abd")), "its token is not the policy's");
        EXPECT_EQ(policy.objection(hello("a", "", "")), "its token is not the policy's");
        EXPECT_EQ(policy.objection(hello("a", "", hash)), "its token is not the policy's");
    }
}

TEST_F(PolicyFile, TellsDevicesApart) {
    const Policy policy = loaded(R"({ "devices": [
        { "device_id": "a", "mac": "000000000001" },
        { "device_id": "b", "mac": "000000000002" },
    ] })");
    EXPECT_EQ(policy.objection(hello("b", "000000000002")), "");
    EXPECT_EQ(policy.objection(hello("a", "000000000002")), "its MAC is not the policy's");
}

TEST_F(PolicyFile, ListsADeviceOnce) {
    EXPECT_EQ(mistake_in(R"({ "devices": [ { "device_id": "a" }, { "device_id": "A" } ] })"),
              ": devices[1].device_id is there twice");
}

TEST_F(PolicyFile, SaysOneOfTwoThings) {
    constexpr const char* either =
        ": either \"admit\": \"all\" or a list \"devices\" must be there";
    EXPECT_EQ(mistake_in("{}"), either);
    EXPECT_EQ(mistake_in(R"({ "admit": "all", "devices": [] })"), either);
    EXPECT_EQ(mistake_in(R"({ "admit": "some" })"),
              ": admit is \"some\"; it must be \"all\", or be left out");
    EXPECT_EQ(mistake_in(R"({ "admit": true })"), ": admit is true; it must be a text");
}

TEST_F(PolicyFile, NamesTheMistakeInADevice) {
    const auto device = [this](const std::string& text) {
        return mistake_in("{ \"devices\": [ { \"device_id\": \"a\" }, " + text + " ] }");
    };
    EXPECT_EQ(device("{}"), ": devices[1].device_id must be a device id");
    EXPECT_EQ(device("7"), ": devices[1] must be a JSON object");
    EXPECT_EQ(device(R"({ "device_id": 7 })"), ": devices[1].device_id is 7; it must be a text");
    EXPECT_EQ(device(R"({ "device_id": "b", "mac": "AA-BB-CC-DD-EE-FF" })"),
              ": devices[1].mac is \"AA-BB-CC-DD-EE-FF\"; it must be 12 hexadecimal digits");
    EXPECT_EQ(device(R"({ "device_id": "b", "mac": "AABBCCDDEEFG" })"),
              ": devices[1].mac is \"AABBCCDDEEFG\"; it must be 12 hexadecimal digits");
    EXPECT_EQ(device(R"({ "device_id": "b", "mak": "AABBCCDDEEFF" })"),
              ": unknown option devices[1].mak");
    EXPECT_EQ(device(R"({ "device_id": "b", "token": "secret" })"),
              ": unknown option devices[1].token");
    EXPECT_EQ(device(R"({ "device_id": "b", "token_sha256": "abc" })"),
              ": devices[1].token_sha256 is \"abc\"; it must be the 64 hexadecimal digits of a "
              "SHA-256 hash");
    EXPECT_THAT(device(R"({ "device_id": "b", "token_sha256": ")" + std::string(64, 'x') + "\" }"),
                HasSubstr("64 hexadecimal digits"));
}

TEST_F(PolicyFile, MustHoldAnObjectWithAList) {
    EXPECT_EQ(mistake_in("[]"), ": it must be a JSON object");
    EXPECT_EQ(mistake_in(R"({ "devices": {} })"), ": devices must be a list");
    EXPECT_THAT(mistake_in("{\n\"admit\": all }"), StartsWith(" is not valid JSON near line 2: "));
    EXPECT_THAT(mistake_in(""), StartsWith(" is not valid JSON near line 1: "));
    EXPECT_EQ(mistake_in(R"({ "admit": "all", "comment": "" })"), ": unknown option comment");
}

TEST_F(PolicyFile, ThatIsMissingIsOneSentence) {
    EXPECT_FALSE(load_policy(folder_.file("none.json"), error_));
    EXPECT_EQ(error_, folder_.file("none.json") + " cannot be read: No such file or directory");
}

} // namespace
} // namespace relay
