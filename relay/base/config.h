// The configuration file: JSON, comments allowed, every option in relay/relay_server.json.
// Read once at the start; certificates, token and policy, which it names, are read again on SIGHUP.
#pragma once

#include "base/networks.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace relay {

// An address to listen on. Port 0: a free one.
struct ListenAddress {
    std::string host; // numeric
    std::uint16_t port = 0;
};

// Paths of PEM files. The certificate has its chain.
struct CertificateFiles {
    std::string certificate;
    std::string key;
};

struct DeviceOptions {
    ListenAddress listen{"0.0.0.0", 8443};
    CertificateFiles tls;
    std::string policy; // path; see devices/policy.h
    std::size_t max_connections = 20000;
    std::size_t max_handshakes = 256; // TLS and hello under way
    std::size_t max_handshakes_per_address = 64;
    std::chrono::seconds hello{10}; // from accepted to hello
    std::chrono::seconds silence{160};
    std::chrono::seconds answer{60}; // from when the device has the request; and for it to be sent
    std::size_t max_answer_bytes = 128 << 20;
    std::size_t requests_out = 4;
    std::size_t requests_open = 256; // out and waiting
};

struct FrontOptions {
    ListenAddress listen{"0.0.0.0", 8080};
    CertificateFiles tls;                            // both paths empty: plain HTTP
    std::vector<CertificateFiles> more_certificates; // for users who ask for their names
    std::string base_domain = "localhost";
    std::uint16_t public_port = 0; // 0: the one listened on
    std::string device_host = "127.0.0.1";
    std::size_t max_connections = 4096;
    std::size_t max_connections_per_address = 256;
    std::size_t max_header_bytes = 32 << 10;
    std::size_t max_body_bytes = 16 << 20;
    std::size_t answer_buffer_bytes = 8 << 20;
    std::chrono::seconds patience{10};
    std::chrono::seconds idle{60};
    std::chrono::seconds hold{60};
};

struct AdminOptions {
    ListenAddress listen{"127.0.0.1", 9090};
    std::string token_file;         // path; needed when `listen` is not a loopback address
    std::string metrics_token_file; // path; this token opens /metrics and nothing else
};

struct Config {
    DeviceOptions devices;
    FrontOptions front;
    AdminOptions admin;
    Networks trusted_proxies;     // who may tell where a connection or a request comes from
    std::string access_log = "-"; // path; "-": standard output; empty: none
    bool access_log_query = true; // targets with their query strings
    std::size_t memory_bytes = 256 << 20;
    std::chrono::seconds drain{10};
};

// Reads the file. On failure returns nothing and puts one sentence into `error`.
std::optional<Config> load_config(const std::string& path, std::string& error);

// The same for the text of a file; paths in it count from the folder of `path`.
std::optional<Config> parse_config(std::string_view text, const std::string& path,
                                   std::string& error);

} // namespace relay
