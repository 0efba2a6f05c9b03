#include "base/config.h"

#include "base/address.h"
#include "base/json_reader.h"
#include "base/text.h"

#include <boost/asio/ip/address.hpp>

#include <algorithm>
#include <charconv>

namespace relay {
namespace {

constexpr std::uint64_t most_bytes = std::uint64_t{1} << 31;
constexpr std::uint64_t most_seconds = 86400;

// "127.0.0.1:8080", "[::1]:8080".
std::optional<ListenAddress> parse_listen(std::string_view text) {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    std::string_view host = text.substr(0, colon);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed)
        host = host.substr(1, host.size() - 2);
    error_code wrong;
    const auto address = asio::ip::make_address(std::string(host), wrong);
    if (wrong || address.is_v6() != bracketed)
        return std::nullopt;
    const auto digits = text.substr(colon + 1);
    std::uint16_t port = 0;
    const auto [end, bad] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (bad != std::errc{} || end != digits.data() + digits.size())
        return std::nullopt;
    return ListenAddress{std::string(host), port};
}

void read_listen(JsonReader& reader, ListenAddress& target) {
    std::string text;
    if (!reader.text("listen", text))
        return;
    if (const auto address = parse_listen(text))
        target = *address;
    else
        reader.fail("listen", "must be a numeric address and a port, such as \"127.0.0.1:8080\"");
}

// A path in the file counts from the file's own folder; "-" is none.
void read_path(JsonReader& reader, std::string_view key, const std::string& folder,
               std::string& target) {
    reader.text(key, target);
    if (!target.empty() && target != "-" && target.front() != '/')
        target = folder + target;
}

bool is_host_name(std::string_view text) {
    return !text.empty() && text.size() <= 253 && text.front() != '.' && text.back() != '.' &&
           text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-.") == text.npos;
}

// Where one of the two is given, the other must be, too.
void read_certificate(JsonReader& reader, const std::string& folder, CertificateFiles& target) {
    read_path(reader, "certificate", folder, target.certificate);
    read_path(reader, "key", folder, target.key);
    if (target.certificate.empty() != target.key.empty())
        reader.fail(target.key.empty() ? "key" : "certificate",
                    "must name a file, since the other one of certificate and key does");
}

void read_more_certificates(JsonReader& reader, const std::string& folder, FrontOptions& options,
                            std::string& error) {
    constexpr std::string_view key = "more_certificates";
    const auto* value = reader.member(key);
    if (!value)
        return;
    const auto* list = value->if_array();
    if (!list)
        return reader.fail(key, "must be a list of objects with certificate and key");
    if (!list->empty() && options.tls.certificate.empty())
        return reader.fail(key, "needs front.certificate, for users who ask for none of the names");
    for (const auto& entry : *list) {
        JsonReader files(entry, "front.more_certificates.", error);
        read_certificate(files, folder, options.more_certificates.emplace_back());
        if (options.more_certificates.back().certificate.empty())
            files.fail("certificate", "must name a file");
        files.finish();
    }
}

void read_devices(const boost::json::value& value, const std::string& folder,
                  DeviceOptions& options, std::string& error) {
    JsonReader reader(value, "devices.", error);
    read_listen(reader, options.listen);
    read_path(reader, "certificate", folder, options.tls.certificate);
    read_path(reader, "key", folder, options.tls.key);
    read_path(reader, "policy", folder, options.policy);
    for (const auto& [key, path] :
         {std::pair("certificate", &options.tls.certificate), std::pair("key", &options.tls.key),
          std::pair("policy", &options.policy)})
        if (path->empty())
            reader.fail(key, "must name a file");
    reader.number("max_connections", options.max_connections, 1, 1'000'000);
    reader.number("max_handshakes", options.max_handshakes, 1, 100'000);
    reader.number("max_handshakes_per_address", options.max_handshakes_per_address, 1, 100'000);
    reader.seconds("hello_s", options.hello, 1, most_seconds);
    reader.seconds("silence_s", options.silence, 1, most_seconds);
    reader.seconds("answer_s", options.answer, 1, most_seconds);
    reader.number("max_answer_bytes", options.max_answer_bytes, 1, most_bytes);
    reader.number("requests_out", options.requests_out, 1, 60);
    reader.number("requests_open", options.requests_open, 1, 60'000);
    if (options.requests_open < options.requests_out)
        reader.fail("requests_open", "must not be below devices.requests_out");
    reader.finish();
}

void read_front(const boost::json::value& value, const std::string& folder, FrontOptions& options,
                std::string& error) {
    JsonReader reader(value, "front.", error);
    read_listen(reader, options.listen);
    read_certificate(reader, folder, options.tls);
    read_more_certificates(reader, folder, options, error);
    reader.text("base_domain", options.base_domain);
    options.base_domain = lower_case(options.base_domain);
    if (!is_host_name(options.base_domain))
        reader.fail("base_domain", "must be a host name");
    reader.number("public_port", options.public_port, 0, 65535);
    reader.text("device_host", options.device_host);
    if (options.device_host.empty() ||
        options.device_host.find_first_of(" \t\r\n/") != std::string::npos)
        reader.fail("device_host", "must be a host, with a port where needed");
    reader.number("max_connections", options.max_connections, 1, 1'000'000);
    reader.number("max_connections_per_address", options.max_connections_per_address, 1, 1'000'000);
    reader.number("max_header_bytes", options.max_header_bytes, 1024, 1 << 20);
    reader.number("max_body_bytes", options.max_body_bytes, 0, most_bytes);
    reader.number("answer_buffer_bytes", options.answer_buffer_bytes, 65536, most_bytes);
    reader.seconds("patience_s", options.patience, 1, most_seconds);
    reader.seconds("idle_s", options.idle, 1, most_seconds);
    reader.seconds("hold_s", options.hold, 1, most_seconds);
    reader.finish();
}

void read_admin(const boost::json::value& value, const std::string& folder, AdminOptions& options,
                std::string& error) {
    JsonReader reader(value, "admin.", error);
    read_listen(reader, options.listen);
    read_path(reader, "token_file", folder, options.token_file);
    read_path(reader, "metrics_token_file", folder, options.metrics_token_file);
    if (options.token_file.empty() && !asio::ip::make_address(options.listen.host).is_loopback())
        reader.fail("token_file", "must name a file with the bearer token, since admin.listen can "
                                  "be reached from outside this machine");
    reader.finish();
}

void read_networks(JsonReader& reader, std::string_view key, Networks& target) {
    const auto* value = reader.member(key);
    if (!value)
        return;
    const auto* list = value->if_array();
    const auto is_added = [&target](const boost::json::value& each) {
        const auto* text = each.if_string();
        return text && target.add({text->data(), text->size()});
    };
    if (!list || !std::all_of(list->begin(), list->end(), is_added))
        reader.fail(key, "must be a list of addresses and networks, such as \"192.0.2.7\" and "
                         "\"10.0.0.0/8\", without bits behind a network's length");
}

} // namespace

std::optional<Config> load_config(const std::string& path, std::string& error) {
    error.clear();
    const auto text = read_file(path, error);
    return text ? parse_config(*text, path, error) : std::nullopt;
}

std::optional<Config> parse_config(std::string_view text, const std::string& path,
                                   std::string& error) {
    error.clear();
    const auto value = parse_json(text, path, error);
    if (!value)
        return std::nullopt;
    const std::string folder = path.substr(0, path.rfind('/') + 1);

    Config config;
    JsonReader reader(*value, "", error);
    static const boost::json::value empty = boost::json::object{};
    const auto section = [&reader](std::string_view key) -> const boost::json::value& {
        const auto* found = reader.member(key);
        return found ? *found : empty;
    };
    read_devices(section("devices"), folder, config.devices, error);
    read_front(section("front"), folder, config.front, error);
    read_admin(section("admin"), folder, config.admin, error);
    read_networks(reader, "trusted_proxies", config.trusted_proxies);
    read_path(reader, "access_log", folder, config.access_log);
    reader.yes_or_no("access_log_query", config.access_log_query);
    reader.number("memory_bytes", config.memory_bytes, 1 << 20, std::uint64_t{1} << 40);
    reader.seconds("drain_s", config.drain, 0, most_seconds);
    reader.finish();
    if (error.empty())
        return config;
    if (!error.starts_with(path))
        error = path + ": " + error;
    return std::nullopt;
}

} // namespace relay
