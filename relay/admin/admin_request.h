// A request to the operators' listener: what it asks for, and whether it may.
#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <string>
#include <string_view>

namespace relay {

namespace http = boost::beast::http;

using AdminRequest = http::request<http::string_body>;
using AdminParser = http::request_parser<http::string_body>;

// Sets the limits of requests, of which none needs more than a few lines.
void limit_admin_request(AdminParser& parser);

struct AdminCall {
    enum class What { health, dashboard, devices, metrics, web_token, wrong_method, nothing };

    What what = What::nothing;
    std::string device_id; // of web_token, and where wrong_method should have been that
};

AdminCall admin_call_of(const AdminRequest& request);

// The bearer tokens of operators and of those who collect the metrics; empty where there is none.
struct AdminTokens {
    std::string all;     // opens everything
    std::string metrics; // opens the metrics alone
};

// Whether the request carries a token that opens what it asks for or, where there is none, comes
// straight from this machine: it names this listener by an address or as localhost, since another
// name can be made to point here by whoever owns it, and no proxy has passed it on, whose own
// address would speak for everybody behind it.
bool is_admin_allowed(const AdminRequest& request, AdminCall::What what, const AdminTokens& tokens);

// True for what a page of another site sends.
bool is_from_elsewhere(const AdminRequest& request);

} // namespace relay
