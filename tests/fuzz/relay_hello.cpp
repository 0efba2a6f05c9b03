// A device's hello, as the relay reads it.
//
// Input: the JSON.

#include "devices/hello.h"
#include "fuzz.h"

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string error;
    const auto hello =
        relay::parse_hello(std::string_view(reinterpret_cast<const char*>(data), size), error);
    REQUIRE(hello.has_value() == error.empty());
    if (!hello)
        return 0;
    REQUIRE(!hello->device_id.empty() && hello->device_id.size() <= 63);
    for (const char c : hello->device_id)
        REQUIRE(isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_');
    REQUIRE(hello->mac.size() <= 127 && hello->firmware_id.size() <= 127);

    const auto again = relay::parse_hello(
        boost::json::serialize(boost::json::object{{"deviceId", hello->device_id},
                                                   {"deviceMac", hello->mac},
                                                   {"firmwareId", hello->firmware_id},
                                                   {"token", "t"}}),
        error);
    REQUIRE(again && again->device_id == hello->device_id && again->mac == hello->mac);
    REQUIRE(again->firmware_id == hello->firmware_id && again->token == relay::sha256("t"));
    return 0;
}
