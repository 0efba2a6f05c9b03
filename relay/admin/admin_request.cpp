#include "admin/admin_request.h"

#include "base/address.h"
#include "base/text.h"
#include "devices/hello.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>

namespace relay {
namespace {

constexpr std::size_t max_request_bytes = 16 << 10;

constexpr std::string_view devices_path = "/api/devices";
constexpr std::string_view web_token_path = "/web-token";

// "/api/devices/<id>/web-token": the id, empty for another path.
std::string_view device_of(std::string_view path) {
    if (!path.starts_with(devices_path) || !path.ends_with(web_token_path))
        return {};
    path.remove_prefix(devices_path.size());
    path.remove_suffix(std::min(path.size(), web_token_path.size()));
    return path.starts_with('/') ? path.substr(1) : std::string_view();
}

bool is_literal_host(std::string_view host) {
    host = host.substr(0, host.rfind(':'));
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    error_code no_address;
    asio::ip::make_address(std::string(host), no_address);
    return !no_address || equals_ignoring_case(host, "localhost");
}

// What proxies add to requests that they pass on.
bool was_passed_on(const AdminRequest& request) {
    constexpr std::array<std::string_view, 5> traces = {"Via", "Forwarded", "X-Forwarded-For",
                                                        "X-Forwarded-Host", "X-Real-IP"};
    return std::any_of(traces.begin(), traces.end(), [&request](std::string_view name) {
        return request.count(boost::beast::string_view(name.data(), name.size())) > 0;
    });
}

bool has_token(const AdminRequest& request, std::string_view token) {
    const std::string_view credentials = request[http::field::authorization];
    constexpr std::string_view scheme = "Bearer ";
    if (!equals_ignoring_case(credentials.substr(0, scheme.size()), scheme))
        return false;
    // Hashes are of one length, and say nothing by the time that comparing them takes.
    const auto given = sha256(credentials.substr(scheme.size()));
    const auto wanted = sha256(token);
    return CRYPTO_memcmp(given.data(), wanted.data(), wanted.size()) == 0;
}

} // namespace

void limit_admin_request(AdminParser& parser) {
    parser.header_limit(max_request_bytes);
    parser.body_limit(max_request_bytes);
}

AdminCall admin_call_of(const AdminRequest& request) {
    using What = AdminCall::What;
    std::string path(request.target());
    path.resize(std::min(path.size(), path.find('?')));
    const bool is_get = request.method() == http::verb::get || request.method() == http::verb::head;
    if (path == "/healthz")
        return {What::health, {}};
    if (path == "/")
        return {is_get ? What::dashboard : What::wrong_method, {}};
    if (path == devices_path)
        return {is_get ? What::devices : What::wrong_method, {}};
    if (path == "/metrics")
        return {is_get ? What::metrics : What::wrong_method, {}};
    const auto device = device_of(path);
    if (device.empty())
        return {What::nothing, {}};
    return {request.method() == http::verb::post ? What::web_token : What::wrong_method,
            std::string(device)};
}

bool is_admin_allowed(const AdminRequest& request, AdminCall::What what,
                      const AdminTokens& tokens) {
    if (!tokens.all.empty() && has_token(request, tokens.all))
        return true;
    if (what == AdminCall::What::metrics && !tokens.metrics.empty())
        return has_token(request, tokens.metrics);
    return tokens.all.empty() && is_literal_host(request[http::field::host]) &&
           !was_passed_on(request);
}

bool is_from_elsewhere(const AdminRequest& request) {
    const std::string_view origin = request[http::field::origin];
    const std::string_view host = request[http::field::host];
    return !origin.empty() && !(origin.ends_with(host) &&
                                origin.substr(0, origin.size() - host.size()).ends_with("://"));
}

} // namespace relay
