#include "base/config.h"

#include "scratch_folder.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <gmock/gmock.h>

#include <algorithm>
#include <ostream>

namespace relay {
namespace {

namespace json = boost::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// The least that must stand in a file.
json::object least() {
    return {{"devices",
             json::object{{"certificate", "/c.pem"}, {"key", "/k.pem"}, {"policy", "/p.json"}}}};
}

class ConfigFile : public testing::Test {
protected:
    Config loaded(std::string_view text) {
        const auto config = load_config(folder_.write("relay.json", text), error_);
        EXPECT_TRUE(config) << error_;
        return config.value_or(Config{});
    }

    // With `value` in place of an option, "devices.hello_s" or "drain_s".
    std::string with(std::string_view option, const json::value& value) {
        auto config = least();
        put(config, option, value);
        return json::serialize(config);
    }

    static void put(json::object& config, std::string_view option, const json::value& value) {
        const auto dot = option.find('.');
        if (dot == option.npos)
            config[option] = value;
        else {
            auto& section = config[option.substr(0, dot)];
            if (!section.is_object())
                section = json::object{};
            section.as_object()[option.substr(dot + 1)] = value;
        }
    }

    // What is said about a text, behind the file's name.
    std::string mistake_in(std::string_view text) {
        const std::string path = folder_.write("relay.json", text);
        EXPECT_FALSE(load_config(path, error_)) << text;
        EXPECT_THAT(error_, StartsWith(path));
        return error_.substr(std::min(error_.size(), path.size()));
    }

    ScratchFolder folder_;
    std::string error_;
};

TEST_F(ConfigFile, NeedsThreeFilesAndNothingElse) {
    const Config config = loaded(json::serialize(least()));
    EXPECT_EQ(config.devices.listen.host, "0.0.0.0");
    EXPECT_EQ(config.devices.listen.port, 8443);
    EXPECT_EQ(config.front.listen.port, 8080);
    EXPECT_EQ(config.admin.listen.host, "127.0.0.1") << "operators' figures are for this machine";
    EXPECT_EQ(config.admin.listen.port, 9090);
    EXPECT_EQ(config.devices.hello.count(), 10);
    EXPECT_EQ(config.devices.silence.count(), 160);
    EXPECT_EQ(config.devices.answer.count(), 60);
    EXPECT_EQ(config.devices.requests_out, 4u);
    EXPECT_EQ(config.front.base_domain, "localhost");
    EXPECT_EQ(config.front.tls.certificate, "");
    EXPECT_EQ(config.access_log, "-");
    EXPECT_EQ(config.drain.count(), 10);
}

TEST_F(ConfigFile, WithoutAFileThatDevicesNeedNamesTheOption) {
    for (const char* key : {"certificate", "key", "policy"}) {
        auto config = least();
        config["devices"].as_object().erase(key);
        EXPECT_EQ(mistake_in(json::serialize(config)),
                  ": devices." + std::string(key) + " must name a file");
    }
    EXPECT_EQ(mistake_in("{}"), ": devices.certificate must name a file");
}

TEST_F(ConfigFile, MayHaveCommentsAndTrailingCommas) {
    const Config config = loaded(R"({
        // where devices come in
        "devices": { "certificate": "/c", "key": "/k", "policy": "/p", /* all three */ },
        "drain_s": 3, // seconds
    })");
    EXPECT_EQ(config.drain.count(), 3);
}

TEST_F(ConfigFile, PathsCountFromItsFolder) {
    const Config config = loaded(R"({
        "devices": { "certificate": "tls/c.pem", "key": "/abs/k.pem", "policy": "../p.json" },
        "front": { "certificate": "f.pem", "key": "f.key" },
        "admin": { "token_file": "token" }
    })");
    EXPECT_EQ(config.devices.tls.certificate, folder_.file("tls/c.pem"));
    EXPECT_EQ(config.devices.tls.key, "/abs/k.pem");
    EXPECT_EQ(config.devices.policy, folder_.file("../p.json"));
    EXPECT_EQ(config.front.tls.certificate, folder_.file("f.pem"));
    EXPECT_EQ(config.front.tls.key, folder_.file("f.key"));
    EXPECT_EQ(config.admin.token_file, folder_.file("token"));
}

TEST_F(ConfigFile, NamedWithoutAFolderHasPathsAsTheyStand) {
    const auto before = std::filesystem::current_path();
    folder_.write("relay.json",
                  R"({ "devices": { "certificate": "c", "key": "k", "policy": "p" } })");
    std::filesystem::current_path(folder_.path());
    const auto config = load_config("relay.json", error_);
    std::filesystem::current_path(before);
    ASSERT_TRUE(config) << error_;
    EXPECT_EQ(config->devices.tls.certificate, "c");
}

TEST_F(ConfigFile, AccessLogMayBeOffOrStandardOutput) {
    EXPECT_EQ(loaded(with("access_log", "")).access_log, "");
    EXPECT_EQ(loaded(with("access_log", "-")).access_log, "-");
    EXPECT_EQ(loaded(with("access_log", "/var/log/x")).access_log, "/var/log/x");
}

TEST_F(ConfigFile, AccessLogCountsFromTheFilesFolderAsEveryPathDoes) {
    EXPECT_EQ(loaded(with("access_log", "access.log")).access_log, folder_.file("access.log"));
}

TEST_F(ConfigFile, TrustsNoProxyUnlessItIsNamed) {
    EXPECT_TRUE(loaded(json::serialize(least())).trusted_proxies.list().empty());
    EXPECT_TRUE(loaded(with("trusted_proxies", json::array{})).trusted_proxies.list().empty());
    const auto proxies =
        loaded(with("trusted_proxies", {"192.0.2.7", "10.0.0.0/8", "2001:db8::/32"}))
            .trusted_proxies;
    for (const char* address : {"192.0.2.7", "10.1.2.3", "2001:db8::1"})
        EXPECT_TRUE(proxies.contain(asio::ip::make_address(address))) << address;
    EXPECT_FALSE(proxies.contain(asio::ip::make_address("192.0.2.8")));
}

TEST_F(ConfigFile, TrustedProxiesAreAListOfAddressesAndNetworks) {
    for (const json::value& value :
         {json::value("192.0.2.7"), json::value(1), json::value(nullptr),
          json::value(json::array{1}), json::value(json::array{"proxy.example"}),
          json::value(json::array{"10.0.0.1/8"}), json::value(json::array{"192.0.2.7", ""})})
        EXPECT_EQ(mistake_in(with("trusted_proxies", value)),
                  ": trusted_proxies is " + json::serialize(value) +
                      "; it must be a list of addresses and networks, such as \"192.0.2.7\" and "
                      "\"10.0.0.0/8\", without bits behind a network's length");
}

TEST_F(ConfigFile, UnknownOptionIsAMistakeInEverySection) {
    EXPECT_EQ(mistake_in(with("devices.hello", 1)), ": unknown option devices.hello");
    EXPECT_EQ(mistake_in(with("front.hello", 1)), ": unknown option front.hello");
    EXPECT_EQ(mistake_in(with("admin.hello", 1)), ": unknown option admin.hello");
    EXPECT_EQ(mistake_in(with("hello", 1)), ": unknown option hello");
}

TEST_F(ConfigFile, SectionsAreObjects) {
    for (const std::string section : {"devices", "front", "admin"})
        EXPECT_EQ(mistake_in(with(section, 1)), ": " + section + " must be a JSON object");
    EXPECT_EQ(mistake_in("[]"), ": it must be a JSON object");
}

TEST_F(ConfigFile, TextOptionsAreTexts) {
    for (const std::string option :
         {"devices.listen", "devices.certificate", "devices.key", "devices.policy", "front.listen",
          "front.certificate", "front.key", "front.base_domain", "front.device_host",
          "admin.listen", "admin.token_file", "access_log"})
        EXPECT_EQ(mistake_in(with(option, 1)), ": " + option + " is 1; it must be a text");
}

TEST_F(ConfigFile, ThatIsNoJsonSaysWhere) {
    EXPECT_THAT(mistake_in("{\n\"devices\" {}\n}"), StartsWith(" is not valid JSON near line 2: "));
}

TEST_F(ConfigFile, ThatCannotBeReadSaysWhy) {
    EXPECT_FALSE(load_config(folder_.file("none"), error_));
    EXPECT_EQ(error_, folder_.file("none") + " cannot be read: No such file or directory");
}

TEST_F(ConfigFile, ListensOnNumericAddresses) {
    const auto listen = [this](const char* text) {
        const auto address = loaded(with("front.listen", text)).front.listen;
        return address.host + " " + std::to_string(address.port);
    };
    EXPECT_EQ(listen("127.0.0.1:0"), "127.0.0.1 0");
    EXPECT_EQ(listen("0.0.0.0:65535"), "0.0.0.0 65535");
    EXPECT_EQ(listen("[::1]:8080"), "::1 8080");
    EXPECT_EQ(listen("[::]:80"), ":: 80");
}

TEST_F(ConfigFile, ListensOnNothingElse) {
    for (const std::string section : {"devices", "front", "admin"})
        for (const char* text :
             {"", ":", "8080", "127.0.0.1", "127.0.0.1:", "localhost:80", "127.0.0.1:65536",
              "127.0.0.1:-1", "127.0.0.1:80x", "127.0.0.1: 80", "::1:80", "[127.0.0.1]:80", "[]:80",
              "[::1]", "256.0.0.1:80"})
            EXPECT_EQ(mistake_in(with(section + ".listen", text)),
                      ": " + section + ".listen is " + json::serialize(json::value(text)) +
                          "; it must be a numeric address and a port, such as \"127.0.0.1:8080\"");
}

TEST_F(ConfigFile, FrontsCertificateAndKeyGoTogether) {
    EXPECT_EQ(mistake_in(with("front.certificate", "/c")),
              ": front.key must name a file, since the other one of certificate and key does");
    EXPECT_EQ(mistake_in(with("front.key", "/k")),
              ": front.certificate must name a file, since the other one of certificate and key "
              "does");
}

TEST_F(ConfigFile, BaseDomainIsAHostName) {
    EXPECT_EQ(loaded(with("front.base_domain", "Relay.Example-1.ORG")).front.base_domain,
              "relay.example-1.org");
    for (const char* text : {"", ".org", "org.", "a b", "a/b", "a:80", "a_b"})
        EXPECT_THAT(mistake_in(with("front.base_domain", text)),
                    AllOf(StartsWith(": front.base_domain"), EndsWith("must be a host name")));
    EXPECT_EQ(loaded(with("front.base_domain", json::string(253, 'a'))).front.base_domain.size(),
              253u);
    EXPECT_THAT(mistake_in(with("front.base_domain", json::string(254, 'a'))),
                EndsWith("must be a host name"));
}

TEST_F(ConfigFile, DeviceHostCannotBreakOutOfItsHeader) {
    EXPECT_EQ(loaded(with("front.device_host", "router.lan:8080")).front.device_host,
              "router.lan:8080");
    for (const char* text : {"", "a b", "a\r\nX: y", "a\tb", "http://a"})
        EXPECT_THAT(mistake_in(with("front.device_host", text)),
                    AllOf(StartsWith(": front.device_host is "),
                          EndsWith("it must be a host, with a port where needed")));
}

TEST_F(ConfigFile, AdminListenerBeyondThisMachineNeedsAToken) {
    for (const char* address : {"127.0.0.1:1", "127.9.9.9:1", "[::1]:1"})
        loaded(with("admin.listen", address));
    for (const char* address : {"0.0.0.0:1", "[::]:1", "192.0.2.1:1"}) {
        EXPECT_EQ(mistake_in(with("admin.listen", address)),
                  ": admin.token_file must name a file with the bearer token, since admin.listen "
                  "can be reached from outside this machine");
        auto config = least();
        put(config, "admin.listen", address);
        put(config, "admin.token_file", "/token");
        EXPECT_EQ(loaded(json::serialize(config)).admin.token_file, "/token");
    }
}

TEST_F(ConfigFile, RequestsOutFitAmongThoseOpen) {
    auto config = least();
    put(config, "devices.requests_out", 8);
    put(config, "devices.requests_open", 7);
    EXPECT_EQ(mistake_in(json::serialize(config)),
              ": devices.requests_open is 7; it must not be below devices.requests_out");
    put(config, "devices.requests_open", 8);
    EXPECT_EQ(loaded(json::serialize(config)).devices.requests_open, 8u);
}

TEST_F(ConfigFile, OnlyTheFirstMistakeIsTold) {
    EXPECT_EQ(mistake_in(R"({ "devices": 1, "front": 2, "unknown": 3 })"),
              ": devices must be a JSON object");
}

struct Range {
    const char* option;
    std::uint64_t least;
    std::uint64_t most;
    std::uint64_t (*value)(const Config& config);
};

void PrintTo(const Range& range, std::ostream* stream) {
    *stream << range.option;
}

std::uint64_t whole(std::uint64_t value) {
    return value;
}
std::uint64_t whole(std::chrono::seconds value) {
    return static_cast<std::uint64_t>(value.count());
}

#define VALUE(member) [](const Config& config) { return whole(config.member); }
constexpr std::uint64_t day = 86400;
constexpr std::uint64_t two_gib = std::uint64_t{2} << 30;
const Range ranges[] = {
    {"devices.max_connections", 1, 1000000, VALUE(devices.max_connections)},
    {"devices.max_handshakes", 1, 100000, VALUE(devices.max_handshakes)},
    {"devices.max_handshakes_per_address", 1, 100000, VALUE(devices.max_handshakes_per_address)},
    {"devices.hello_s", 1, day, VALUE(devices.hello)},
    {"devices.silence_s", 1, day, VALUE(devices.silence)},
    {"devices.answer_s", 1, day, VALUE(devices.answer)},
    {"devices.max_answer_bytes", 1, two_gib, VALUE(devices.max_answer_bytes)},
    {"devices.requests_out", 1, 60, VALUE(devices.requests_out)},
    {"devices.requests_open", 1, 60000, VALUE(devices.requests_open)},
    {"front.public_port", 0, 65535, VALUE(front.public_port)},
    {"front.max_connections", 1, 1000000, VALUE(front.max_connections)},
    {"front.max_connections_per_address", 1, 1000000, VALUE(front.max_connections_per_address)},
    {"front.max_header_bytes", 1024, 1 << 20, VALUE(front.max_header_bytes)},
    {"front.max_body_bytes", 0, two_gib, VALUE(front.max_body_bytes)},
    {"front.answer_buffer_bytes", 65536, two_gib, VALUE(front.answer_buffer_bytes)},
    {"front.patience_s", 1, day, VALUE(front.patience)},
    {"front.idle_s", 1, day, VALUE(front.idle)},
    {"front.hold_s", 1, day, VALUE(front.hold)},
    {"memory_bytes", 1 << 20, std::uint64_t{1} << 40, VALUE(memory_bytes)},
    {"drain_s", 0, day, VALUE(drain)},
};
#undef VALUE

class ConfigRange : public ConfigFile, public testing::WithParamInterface<Range> {
protected:
    std::string with_number(const json::value& number) {
        auto config = least();
        put(config, "devices.requests_out", 1); // leaves every number of open ones possible
        put(config, GetParam().option, number);
        return json::serialize(config);
    }
};

TEST_P(ConfigRange, BothEndsAreTaken) {
    const Range& range = GetParam();
    for (const std::uint64_t number : {range.least, range.most})
        EXPECT_EQ(range.value(loaded(with_number(number))), number);
}

TEST_P(ConfigRange, BeyondTheEndsIsAMistake) {
    const Range& range = GetParam();
    const auto below = static_cast<std::int64_t>(range.least) - 1;
    for (const json::value& number : {json::value(below), json::value(range.most + 1)})
        EXPECT_EQ(mistake_in(with_number(number)),
                  ": " + std::string(range.option) + " is " + json::serialize(number) +
                      "; it must be a whole number from " + std::to_string(range.least) + " to " +
                      std::to_string(range.most));
}

TEST_P(ConfigRange, OtherThanAWholeNumberIsAMistake) {
    for (const json::value& other : {json::value("1"), json::value(nullptr), json::value(true),
                                     json::value(static_cast<double>(GetParam().least) + 0.5)})
        EXPECT_THAT(mistake_in(with_number(other)),
                    AllOf(StartsWith(": " + std::string(GetParam().option) + " is "),
                          HasSubstr("; it must be a whole number from ")));
}

INSTANTIATE_TEST_SUITE_P(Options, ConfigRange, testing::ValuesIn(ranges), [](const auto& range) {
    std::string name = range.param.option;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
});

} // namespace
} // namespace relay
