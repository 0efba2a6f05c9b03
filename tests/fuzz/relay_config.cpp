// The relay's configuration.
//
// Input: the file.

#include "base/address.h"
#include "base/config.h"
#include "fuzz.h"

#include <boost/asio/ip/address.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>

namespace {

namespace json = boost::json;

std::string listen(const relay::ListenAddress& address) {
    const bool is_v6 = address.host.find(':') != address.host.npos;
    return (is_v6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

json::object devices(const relay::DeviceOptions& o) {
    return {{"listen", listen(o.listen)},
            {"certificate", o.tls.certificate},
            {"key", o.tls.key},
            {"policy", o.policy},
            {"max_connections", o.max_connections},
            {"max_handshakes", o.max_handshakes},
            {"max_handshakes_per_address", o.max_handshakes_per_address},
            {"hello_s", o.hello.count()},
            {"silence_s", o.silence.count()},
            {"answer_s", o.answer.count()},
            {"max_answer_bytes", o.max_answer_bytes},
            {"requests_out", o.requests_out},
            {"requests_open", o.requests_open}};
}

json::object front(const relay::FrontOptions& o) {
    json::array more;
    for (const auto& files : o.more_certificates)
        more.push_back(json::object{{"certificate", files.certificate}, {"key", files.key}});
    return {{"listen", listen(o.listen)},
            {"certificate", o.tls.certificate},
            {"key", o.tls.key},
            {"more_certificates", std::move(more)},
            {"base_domain", o.base_domain},
            {"public_port", o.public_port},
            {"device_host", o.device_host},
            {"max_connections", o.max_connections},
            {"max_connections_per_address", o.max_connections_per_address},
            {"max_header_bytes", o.max_header_bytes},
            {"max_body_bytes", o.max_body_bytes},
            {"answer_buffer_bytes", o.answer_buffer_bytes},
            {"patience_s", o.patience.count()},
            {"idle_s", o.idle.count()},
            {"hold_s", o.hold.count()}};
}

json::array networks(const relay::Networks& networks) {
    json::array texts;
    for (const auto& network : networks.list())
        texts.emplace_back(network.to_string());
    return texts;
}

std::string file_of(const relay::Config& config) {
    return json::serialize(json::object{{"devices", devices(config.devices)},
                                        {"front", front(config.front)},
                                        {"admin",
                                         {{"listen", listen(config.admin.listen)},
                                          {"token_file", config.admin.token_file},
                                          {"metrics_token_file", config.admin.metrics_token_file}}},
                                        {"trusted_proxies", networks(config.trusted_proxies)},
                                        {"access_log", config.access_log},
                                        {"access_log_query", config.access_log_query},
                                        {"memory_bytes", config.memory_bytes},
                                        {"drain_s", config.drain.count()}});
}

void check_listen(const relay::ListenAddress& address) {
    boost::system::error_code wrong;
    boost::asio::ip::make_address(address.host, wrong);
    REQUIRE(!wrong && address.host.find('\0') == address.host.npos);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string error;
    const auto config = relay::parse_config(
        std::string_view(reinterpret_cast<const char*>(data), size), "/etc/relay.json", error);
    REQUIRE(config.has_value() == error.empty());
    if (!config)
        return 0;
    check_listen(config->devices.listen);
    check_listen(config->front.listen);
    check_listen(config->admin.listen);
    REQUIRE(config->devices.requests_open >= config->devices.requests_out);
    REQUIRE(config->front.tls.certificate.empty() == config->front.tls.key.empty());
    const std::string file = file_of(*config);
    const auto again = relay::parse_config(file, "/etc/relay.json", error);
    REQUIRE(again && file_of(*again) == file);
    return 0;
}
