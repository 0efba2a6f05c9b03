#include "wire/attributes.h"

#include <gtest/gtest.h>

#include "raw_peer.h"

namespace {

// A body in aligned memory of exactly its size, so that a checker sees every byte beyond.
class Parsed {
public:
    explicit Parsed(const Bytes& bytes) : m_body(static_cast<blob_attr*>(malloc(bytes.size()))) {
        memcpy(m_body, bytes.data(), bytes.size());
        result = bus::parse_attributes(m_body, attrs);
    }
    ~Parsed() { free(m_body); }
    Parsed(const Parsed&) = delete;
    Parsed& operator=(const Parsed&) = delete;

    bus::parse_result result;
    blob_attr* attrs[bus::attr_count];

private:
    blob_attr* m_body;
};

TEST(Attributes, AreFoundById) {
    Body body;
    body.number(1, 100).text(2, "svc").number(3, 0x1c60effc).flag(10, true);
    body.table(7, R"({"a": 1, "b": {"c": [true, "two", {}]}})");
    const Parsed parsed(body.encoded());
    ASSERT_EQ(parsed.result, bus::parse_result::ok);
    EXPECT_EQ(bus::attribute_u32(parsed.attrs[bus::attr_status]), 100U);
    EXPECT_STREQ(bus::attribute_text(parsed.attrs[bus::attr_objpath]), "svc");
    EXPECT_EQ(bus::attribute_u32(parsed.attrs[bus::attr_objid]), 0x1c60effcU);
    EXPECT_TRUE(bus::attribute_flag(parsed.attrs[bus::attr_no_reply]));
    EXPECT_NE(parsed.attrs[bus::attr_data], nullptr);
    EXPECT_EQ(parsed.attrs[bus::attr_method], nullptr);
}

TEST(Attributes, HaveDefaultsWhenAbsent) {
    EXPECT_EQ(bus::attribute_u32(nullptr), 0U);
    EXPECT_FALSE(bus::attribute_flag(nullptr));
    EXPECT_EQ(bus::attribute_text(nullptr), nullptr);
}

TEST(Attributes, OfAnEmptyBodyAreNone) {
    const Parsed parsed(from_hex("00000004"));
    EXPECT_EQ(parsed.result, bus::parse_result::ok);
    for (const blob_attr* attr : parsed.attrs) {
        EXPECT_EQ(attr, nullptr);
    }
}

TEST(Attributes, OfUnknownIdsArePassedOver) {
    Body body;
    body.number(14, 1).number(127, 2).number(3, 5);
    const Parsed parsed(body.encoded());
    ASSERT_EQ(parsed.result, bus::parse_result::ok);
    EXPECT_EQ(bus::attribute_u32(parsed.attrs[bus::attr_objid]), 5U);
}

struct Sample {
    const char* why;
    const char* hex;
};

class MalformedBody : public testing::TestWithParam<Sample> {};

TEST_P(MalformedBody, IsTold) {
    EXPECT_EQ(Parsed(from_hex(GetParam().hex)).result, bus::parse_result::malformed);
}

INSTANTIATE_TEST_SUITE_P(
    All, MalformedBody,
    testing::Values(Sample{"an attribute longer than the body", "0000000c0300000c00000001"},
                    Sample{"an attribute of 16 MiB", "0000000c03ffffff00000001"},
                    Sample{"an attribute shorter than its head", "0000000c0300000300000001"},
                    Sample{"an attribute without length", "0000000c0300000000000001"},
                    Sample{"an unknown attribute that does not fit", "0000000c2000001000000001"}));

class WrongAttribute : public testing::TestWithParam<Sample> {};

TEST_P(WrongAttribute, IsTold) {
    const Parsed parsed(from_hex(GetParam().hex));
    EXPECT_EQ(parsed.result, bus::parse_result::bad_attribute);
    for (const blob_attr* attr : parsed.attrs) {
        EXPECT_EQ(attr, nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongAttribute,
    testing::Values(
        Sample{"a number of 2 bytes", "0000000c0300000600010000"},
        Sample{"a number of 8 bytes", "000000100300000c0000000100000001"},
        Sample{"a text without end", "0000000c0200000861626364"},
        Sample{"a text of no bytes", "0000000802000004"},
        Sample{"a flag of no bytes", "000000080a000004"},
        Sample{"data whose field does not fit", "000000100700000c850000ff00000000"},
        Sample{"data whose field has no length", "000000100700000c8500000000000000"},
        Sample{"data of 2 bytes", "0000000c0700000612340000"},
        Sample{"data marked as a named field", "00000014870000108500000c0001610000000001"},
        Sample{"a name that does not fit", "00000014070000108500000c0020616100000001"},
        Sample{"a name without end", "00000014070000108500000c0001616200000001"},
        Sample{"a field of a type that is none", "00000014070000108900000c0001610000000001"},
        Sample{"a 32-bit field of 2 bytes", "00000014070000108500000a0001610000010000"},
        Sample{"a text field without end", "00000014070000108300000c0001610061626364"},
        Sample{"a nothing that has bytes", "00000014070000108000000c0001610000000001"},
        Sample{"a table with a wrong field",
               "0000001c070000188200001400016100850000ff0001620000000001"},
        Sample{"an array with a wrong field",
               "0000001c070000188100001400016100850000ff0001620000000001"}));

std::string nested(int depth) {
    std::string json = "1";
    for (int i = 0; i < depth; i++) {
        json = "{\"a\":" + json + "}";
    }
    return json;
}

// Tables within tables; the JSON parser would not go so deep.
Bytes nested_tables(int depth) {
    blob_buf buf = {};
    blob_buf_init(&buf, 0);
    void* data = blob_nest_start(&buf, bus::attr_data);
    std::vector<void*> open;
    for (int i = 0; i < depth; i++) {
        open.push_back(blobmsg_open_table(&buf, "t"));
    }
    for (; !open.empty(); open.pop_back()) {
        blobmsg_close_table(&buf, open.back());
    }
    blob_nest_end(&buf, data);
    const uint8_t* first = reinterpret_cast<const uint8_t*>(buf.head);
    const Bytes bytes(first, first + blob_raw_len(buf.head));
    blob_buf_free(&buf);
    return bytes;
}

TEST(NestedData, MayBeAsDeepAsJsonGets) {
    Body body;
    body.table(7, nested(30));
    EXPECT_EQ(Parsed(body.encoded()).result, bus::parse_result::ok);
}

TEST(NestedData, IsRefusedWhenItWouldExhaustTheStackOfAReader) {
    EXPECT_EQ(Parsed(nested_tables(63)).result, bus::parse_result::ok);
    EXPECT_EQ(Parsed(nested_tables(64)).result, bus::parse_result::bad_attribute);
    EXPECT_EQ(Parsed(nested_tables(50000)).result, bus::parse_result::bad_attribute);
}

TEST(Attributes, SurviveEveryCutAndEveryChangedByte) {
    Body body;
    body.text(2, "svc").number(3, 7).table(7, R"({"a": {"b": [1, "x"]}, "c": true})");
    const Bytes whole = body.encoded();
    for (size_t at = 4; at < whole.size(); at++) {
        for (const int value : {0x00, 0x01, 0x7f, 0x80, 0xff}) {
            Bytes changed = whole;
            changed[at] = static_cast<uint8_t>(value);
            const Parsed parsed(changed); // a checker watches; nothing reads beyond the body
            if (parsed.attrs[bus::attr_data]) {
                char* json = blobmsg_format_json(parsed.attrs[bus::attr_data], true);
                EXPECT_NE(json, nullptr);
                free(json);
            }
        }
    }
    for (size_t size = 4; size < whole.size(); size += 4) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<long>(size));
        cut[2] = static_cast<uint8_t>(size >> 8);
        cut[3] = static_cast<uint8_t>(size);
        EXPECT_NE(Parsed(cut).result, bus::parse_result::bad_attribute);
    }
}

TEST(Ids, CompareAsUnsignedNumbers) {
    const uint32_t low = 1;
    const uint32_t high = 0xfffffff0;
    EXPECT_LT(bus::compare_ids(&low, &high, nullptr), 0);
    EXPECT_GT(bus::compare_ids(&high, &low, nullptr), 0);
    EXPECT_EQ(bus::compare_ids(&high, &high, nullptr), 0);
}

} // namespace
