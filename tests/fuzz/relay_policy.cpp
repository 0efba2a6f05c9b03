// The policy: which devices the relay admits.
//
// Input: the file.

#include "devices/policy.h"
#include "fuzz.h"

#include <boost/algorithm/hex.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>

#include <iterator>

namespace {

namespace json = boost::json;

std::string file_of(const relay::Policy& policy) {
    if (policy.admit_all)
        return json::serialize(json::object{{"admit", "all"}});
    json::array devices;
    for (const auto& [key, admission] : policy.devices) {
        json::object device{{"device_id", key}};
        if (!admission.mac.empty())
            device["mac"] = admission.mac;
        if (admission.token) {
            std::string digits;
            boost::algorithm::hex(*admission.token, std::back_inserter(digits));
            device["token_sha256"] = digits;
        }
        devices.push_back(std::move(device));
    }
    return json::serialize(json::object{{"devices", std::move(devices)}});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string error;
    const auto policy = relay::parse_policy(
        std::string_view(reinterpret_cast<const char*>(data), size), "policy.json", error);
    REQUIRE(policy.has_value() == error.empty());
    REQUIRE(policy || error.starts_with("policy.json"));
    if (!policy)
        return 0;
    REQUIRE(!policy->admit_all || policy->devices.empty());
    const auto again = relay::parse_policy(file_of(*policy), "policy.json", error);
    REQUIRE(again && again->admit_all == policy->admit_all);
    REQUIRE(std::equal(policy->devices.begin(), policy->devices.end(), again->devices.begin(),
                       again->devices.end(), [](const auto& a, const auto& b) {
                           return a.first == b.first && a.second.mac == b.second.mac &&
                                  a.second.token == b.second.token;
                       }));
    // A listed device is admitted, one that says something else is not.
    for (const auto& [key, admission] : policy->devices) {
        relay::Hello hello{key, admission.mac, "", admission.token.value_or(relay::Sha256{})};
        REQUIRE(policy->objection(hello).empty());
        hello.token[0] ^= 1;
        REQUIRE(policy->objection(hello).empty() != admission.token.has_value());
    }
    return 0;
}
