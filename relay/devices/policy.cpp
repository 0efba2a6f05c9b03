#include "devices/policy.h"

#include "base/json_reader.h"
#include "base/text.h"

#include <boost/algorithm/hex.hpp>
#include <boost/json/array.hpp>
#include <openssl/crypto.h>

namespace relay {
namespace {

constexpr std::size_t mac_digits = 12;

bool is_hexadecimal(std::string_view text, std::size_t digits) {
    return text.size() == digits && text.find_first_not_of("0123456789abcdefABCDEF") == text.npos;
}

// Returns the device's key, empty after a mistake.
std::string read_device(const boost::json::value& value, std::string where, Admission& admission,
                        std::string& error) {
    JsonReader reader(value, std::move(where), error);
    std::string id;
    std::string token;
    if (!reader.text("device_id", id) || id.empty())
        reader.fail("device_id", "must be a device id");
    if (reader.text("mac", admission.mac) && !is_hexadecimal(admission.mac, mac_digits))
        reader.fail("mac", "must be 12 hexadecimal digits");
    if (reader.text("token_sha256", token)) {
        admission.token.emplace();
        if (is_hexadecimal(token, 2 * admission.token->size()))
            boost::algorithm::unhex(token, admission.token->begin());
        else
            reader.fail("token_sha256", "must be the 64 hexadecimal digits of a SHA-256 hash");
    }
    return reader.finish() ? device_key(id) : std::string();
}

void read_devices(const boost::json::value& list, Policy& policy, std::string& error) {
    const auto* array = list.if_array();
    if (!array) {
        error = "devices must be a list";
        return;
    }
    for (std::size_t i = 0; i < array->size() && error.empty(); ++i) {
        const std::string where = "devices[" + std::to_string(i) + "]";
        Admission admission;
        const auto key = read_device((*array)[i], where + ".", admission, error);
        if (!key.empty() && !policy.devices.emplace(key, std::move(admission)).second)
            error = where + ".device_id is there twice";
    }
}

} // namespace

std::string Policy::objection(const Hello& hello) const {
    if (admit_all)
        return {};
    const auto found = devices.find(device_key(hello.device_id));
    if (found == devices.end())
        return "it is not on the policy's list";
    const Admission& admission = found->second;
    if (!admission.mac.empty() && !equals_ignoring_case(admission.mac, hello.mac))
        return "its MAC is not the policy's";
    if (admission.token &&
        CRYPTO_memcmp(admission.token->data(), hello.token.data(), hello.token.size()) != 0)
        return "its token is not the policy's";
    return {};
}

std::optional<Policy> load_policy(const std::string& path, std::string& error) {
    error.clear();
    const auto text = read_file(path, error);
    return text ? parse_policy(*text, path, error) : std::nullopt;
}

std::optional<Policy> parse_policy(std::string_view text, const std::string& path,
                                   std::string& error) {
    error.clear();
    const auto value = parse_json(text, path, error);
    if (!value)
        return std::nullopt;
    Policy policy;
    JsonReader reader(*value, "", error);
    std::string admit;
    const bool has_admit = reader.text("admit", admit);
    const auto* list = reader.member("devices");
    policy.admit_all = admit == "all";
    if (has_admit && !policy.admit_all)
        reader.fail("admit", "must be \"all\", or be left out");
    if (reader.finish() && policy.admit_all == (list != nullptr))
        error = "either \"admit\": \"all\" or a list \"devices\" must be there";
    if (error.empty() && list)
        read_devices(*list, policy, error);
    if (error.empty())
        return policy;
    error = path + ": " + error;
    return std::nullopt;
}

} // namespace relay
