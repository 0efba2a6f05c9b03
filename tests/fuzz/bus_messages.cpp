// The bytes on a bus connection: messages out of a stream, attributes out of a body.
//
// Input: how the stream is cut (8 bits), then the stream.

#include <cstring>
#include <memory>

#include "bus_script.h"
#include "wire/attributes.h"
#include "wire/reader.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

constexpr size_t slices_max = 30;

struct stream_result {
    std::vector<bus_bytes> messages; // as they would be sent on
    bool failed = false;

    bool operator==(const stream_result&) const = default;
};

bus_bytes encoded(const bus::message& message) {
    bus_bytes bytes(bus::header_bytes + blob_raw_len(message.body));
    bus::copy_message_part(bytes.data(), message.header, message.body, 0);
    return bytes;
}

bool is_equal(const blob_attr* left, const blob_attr* right) {
    if (!left || !right) {
        return left == right;
    }
    return blob_len(left) == blob_len(right) &&
           memcmp(blob_data(left), blob_data(right), blob_len(left)) == 0;
}

void put_attribute(blob_buf& out, int id, const blob_attr* attr) {
    REQUIRE(blob_put(&out, id, blob_data(attr), static_cast<unsigned>(blob_len(attr))));
}

// What passed the checks can be printed, and is read back the same.
void use_attributes(blob_attr* body) {
    blob_attr* attrs[bus::attr_count];
    if (bus::parse_attributes(body, attrs) != bus::parse_result::ok) {
        for (int id = 0; id < bus::attr_count; id++) {
            REQUIRE(attrs[id] == nullptr);
        }
        return;
    }
    bus::blob_writer copy;
    for (int id = 1; id < bus::attr_count; id++) {
        if (attrs[id]) {
            put_attribute(copy.buf, id, attrs[id]);
        }
    }
    for (const int id : {bus::attr_data, bus::attr_signature}) {
        if (attrs[id]) {
            REQUIRE(blobmsg_data_len(attrs[id]) == blob_len(attrs[id]));
            free(blobmsg_format_json(attrs[id], true));
        }
    }
    blob_attr* again[bus::attr_count];
    REQUIRE(bus::parse_attributes(copy.buf.head, again) == bus::parse_result::ok);
    for (int id = 1; id < bus::attr_count; id++) {
        REQUIRE(is_equal(attrs[id], again[id]));
    }
}

// Takes what is complete. False once the stream cannot be understood.
bool take_messages(bus::reader& in, stream_result& result) {
    for (;;) {
        bus::message message;
        switch (bus::reader_take(in, message)) {
        case bus::take_result::message:
            result.messages.push_back(encoded(message));
            use_attributes(message.body);
            break;
        case bus::take_result::incomplete:
            return true;
        case bus::take_result::failed:
            result.failed = true;
            return false;
        }
    }
}

stream_result read_stream(std::string_view stream, size_t slice) {
    const bus_connection connection;
    bus::reader in;
    stream_result result;
    bool goes_on = true;
    for (size_t at = 0; goes_on && at < stream.size(); at += slice) {
        const std::string_view part = stream.substr(at, slice);
        REQUIRE(write(connection.ends[0], part.data(), part.size()) ==
                static_cast<ssize_t>(part.size()));
        while (goes_on && bus::reader_fill(in, connection.ends[1]) == bus::read_result::bytes) {
            goes_on = take_messages(in, result);
        }
    }
    bus::reader_reset(in);
    close(connection.ends[0]);
    close(connection.ends[1]);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const size_t asked_slice = input.byte() + size_t{1};
    const std::string_view stream = input.rest();
    const size_t slice = std::max(asked_slice, stream.size() / slices_max);
    const stream_result whole = read_stream(stream, stream.size() + 1);
    REQUIRE(read_stream(stream, slice) == whole);

    std::string_view left = stream;
    for (const bus_bytes& message : whole.messages) {
        REQUIRE(left.size() >= message.size() &&
                memcmp(left.data(), message.data(), message.size()) == 0);
        left.remove_prefix(message.size());
    }
    return 0;
}
