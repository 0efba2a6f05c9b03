#include "devices/hello.h"

#include "base/text.h"

#include <boost/json/parse.hpp>
#include <openssl/sha.h>

namespace relay {
namespace {

constexpr std::size_t max_member_bytes = 127;
constexpr std::size_t max_label_bytes = 63;

std::optional<std::string> member(const boost::json::object& object, std::string_view key,
                                  std::string& error) {
    const auto* value = object.if_contains(key);
    const auto* text = value ? value->if_string() : nullptr;
    if (!text) {
        error = "\"" + std::string(key) + "\" is missing or no text";
        return std::nullopt;
    }
    if (text->size() > max_member_bytes) {
        error = "\"" + std::string(key) + "\" is longer than 127 bytes";
        return std::nullopt;
    }
    return std::string(text->data(), text->size());
}

// It becomes the first label of the name under which the device's pages are reached.
bool is_label(std::string_view id) {
    return !id.empty() && id.size() <= max_label_bytes && id.front() != '-' && id.back() != '-' &&
           id.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                "0123456789-_") == id.npos;
}

} // namespace

Sha256 sha256(std::string_view text) {
    Sha256 digest;
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    return digest;
}

std::optional<Hello> parse_hello(std::string_view json, std::string& error) {
    boost::json::error_code wrong;
    const auto value = boost::json::parse(json, wrong);
    const auto* object = wrong ? nullptr : value.if_object();
    if (!object) {
        error = "it is no JSON object";
        return std::nullopt;
    }
    const auto id = member(*object, "deviceId", error);
    const auto mac = id ? member(*object, "deviceMac", error) : std::nullopt;
    const auto firmware = mac ? member(*object, "firmwareId", error) : std::nullopt;
    const auto token = firmware ? member(*object, "token", error) : std::nullopt;
    if (!token)
        return std::nullopt;
    if (!is_label(*id)) {
        error = "device id \"" + *id + "\" cannot be part of a host name";
        return std::nullopt;
    }
    return Hello{*id, *mac, *firmware, sha256(*token)};
}

std::string device_key(std::string_view device_id) {
    return lower_case(device_id);
}

} // namespace relay
