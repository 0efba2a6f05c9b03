// The routing table, from which the uplinks are taken.
//
// Input: the table.

#include <cstring>

#include "fuzz.h"
#include "transport/gateway_device.h"

namespace {

struct table_result {
    int count = 0;
    std::string names; // one a line

    bool operator==(const table_result&) const = default;
};

FILE* open_text(const std::string& text) {
    FILE* file = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    REQUIRE(file);
    return file;
}

table_result read_table(const std::string& table) {
    FILE* file = open_text(table);
    gateway_device_list_t list = {};
    REQUIRE(internal::_read_gateway_devices(file, &list) == 0);
    fclose(file);
    table_result result;
    result.count = list.count;
    int seen = 0;
    for (const gateway_device_t* device = list.head; device != nullptr; device = device->next) {
        const size_t length = strnlen(device->name, GATEWAY_DEVICE_NAME_SIZE);
        REQUIRE(length < GATEWAY_DEVICE_NAME_SIZE);
        result.names.append(device->name, length) += '\n';
        seen++;
    }
    REQUIRE(seen == list.count);
    internal::_clear_gateway_device(&list);
    REQUIRE(list.head == nullptr && list.count == 0);
    return result;
}

int count_rows(const std::string& table) {
    FILE* file = open_text(table);
    const int count = internal::_count_gateway_devices(file);
    fclose(file);
    return count;
}

// A table of these uplinks, as the kernel prints it.
std::string table_of(const std::string& names) {
    std::string table = "Iface\tDestination\n";
    for (size_t at = 0; at < names.size();) {
        const size_t end = names.find('\n', at);
        table += names.substr(at, end - at);
        table += "\t00000000\t010200C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n";
        at = end + 1;
    }
    return table;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0; // not a file of fmemopen's
    }
    const std::string table(reinterpret_cast<const char*>(data), size);
    const table_result result = read_table(table);
    REQUIRE(count_rows(table) == result.count);
    if (table.find('\0') != table.npos) {
        return 0; // no text: a zero byte ends a name early
    }

    // The list is in reverse order; reversed twice it is the same.
    const table_result reversed = read_table(table_of(result.names));
    REQUIRE(reversed.count == result.count);
    REQUIRE(read_table(table_of(reversed.names)) == result);
    return 0;
}
