#include "admin/admin.h"

#include "admin/dashboard_page.h"
#include "admin/device_json.h"
#include "admin/prometheus.h"
#include "base/json_reader.h"
#include "base/spawn.h"
#include "base/text.h"
#include "devices/hello.h"

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>

namespace relay {

namespace json = boost::json;

namespace {

constexpr std::chrono::seconds patience{10};
constexpr std::chrono::seconds idle{60};
constexpr std::chrono::seconds failed_login_pause{1};
constexpr std::size_t max_connections_per_address = 64;
constexpr std::size_t max_web_token_bytes = 64 << 10;

// What the device is asked; it wants a body and looks at none of it.
constexpr std::string_view web_token_request = "{\"name\":\"token_get\"}";

void set(Admin::Response& response, http::status status, std::string_view type, std::string body) {
    response.result(status);
    response.set(http::field::content_type, boost::beast::string_view(type.data(), type.size()));
    response.body() = std::move(body);
}

void refuse(Admin::Response& response, http::status status, std::string_view why) {
    set(response, status, "application/json",
        json::serialize(json::object{{"error", json::string_view(why.data(), why.size())}}) + "\n");
}

// Empty for an empty path. Nothing when the file has none: `error` says why.
std::optional<std::string> read_token(const std::string& path, std::string& error) {
    if (path.empty())
        return "";
    const auto text = read_file(path, error);
    if (!text)
        return std::nullopt;
    const auto end = text->find_last_not_of(" \t\r\n");
    if (end == std::string::npos) {
        error = path + " holds no token";
        return std::nullopt;
    }
    return text->substr(0, end + 1);
}

std::string time_or_empty(std::chrono::system_clock::time_point time) {
    return time == std::chrono::system_clock::time_point{} ? "" : iso_time(time);
}

} // namespace

struct Admin::Connection {
    Connection(Crowd& crowd, std::shared_ptr<Client> client, Socket its_socket)
        : socket(std::move(its_socket)),
          guest(
              crowd, std::move(client),
              [this] { return is_idle && is_quiet(socket.native_handle()); },
              [this] {
                  error_code ignored;
                  socket.close(ignored);
              }) {
        error_code ignored;
        address = to_text(socket.remote_endpoint(ignored).address());
    }

    Socket socket;
    std::string address; // of the operator
    bool is_idle = true;
    Guest guest;
};

// The place of a device among those that are asked for a token; also when the asking breaks off.
struct Admin::Asked {
    ~Asked() {
        if (!owner.expired())
            devices.erase(place);
    }

    std::set<std::string>& devices;
    const std::set<std::string>::iterator place;
    const std::weak_ptr<const void> owner; // of the set
};

Admin::Admin(const Services& services)
    : services_(services),
      failed_logins_(services.deadlines, services.metrics.admin_logins_failed,
                     [](std::uint64_t number) {
                         log::warning("operators' listener: ", number,
                                      " requests without the token that they need");
                     }),
      door_(services.executor, services.deadlines, services.clients,
            {{max_connections, max_connections_per_address},
             "connections of operators",
             operators_count,
             services.metrics.admin_connections,
             services.metrics.admin_connections_turned_away},
            [this](Socket socket, std::shared_ptr<Client> client) {
                welcome(std::move(socket), std::move(client));
            }) {}

bool Admin::load(std::string& error) {
    const auto& options = services_.config.admin;
    const auto all = read_token(options.token_file, error);
    const auto metrics = read_token(options.metrics_token_file, error);
    if (!all || !metrics)
        return false;
    tokens_ = {*all, *metrics};
    return true;
}

bool Admin::listen(std::string& error) {
    return door_.listen(services_.config.admin.listen, error);
}

std::uint16_t Admin::port() const {
    return door_.port();
}

void Admin::close_all() {
    door_.close();
    error_code ignored;
    for (Connection* const connection : connections_)
        connection->socket.close(ignored);
}

void Admin::welcome(Socket socket, std::shared_ptr<Client> client) {
    const auto connection =
        std::make_shared<Connection>(door_.crowd(), std::move(client), std::move(socket));
    connections_.insert(connection.get());
    spawn(
        services_.executor, alive_, [&] { return serve(connection); },
        [this, connection] { connections_.erase(connection.get()); });
}

Awaitable<void> Admin::serve(std::shared_ptr<Connection> connection) {
    Socket& socket = connection->socket;
    Deadline deadline(services_.deadlines, [&socket] { socket.close(); });
    boost::beast::flat_buffer buffer;
    error_code error;
    for (bool goes_on = true; goes_on;) {
        AdminParser parser;
        limit_admin_request(parser);
        deadline.set(idle);
        connection->is_idle = true;
        co_await http::async_read(socket, buffer, parser, into(error));
        connection->is_idle = false;
        if (error)
            break;
        const Request request = parser.release();
        Response response;
        response.version(11);
        response.set(http::field::cache_control, "no-store");
        deadline.clear(); // a device may take its time
        co_await answer(*connection, request, response);
        response.keep_alive(request.keep_alive());
        goes_on = request.keep_alive();
        response.prepare_payload();
        if (request.method() == http::verb::head)
            response.body().clear();
        deadline.set(patience);
        co_await http::async_write(socket, response, into(error));
        goes_on = goes_on && !error;
    }
    connections_.erase(connection.get());
}

Awaitable<void> Admin::answer(const Connection& connection, const Request& request,
                              Response& response) {
    using What = AdminCall::What;
    const auto call = admin_call_of(request);
    const bool is_allowed = is_admin_allowed(request, call.what, tokens_);
    if (call.what == What::health) {
        set(response, services_.draining ? http::status::service_unavailable : http::status::ok,
            "text/plain", services_.draining ? "draining\n" : "ok\n");
    } else if (call.what == What::dashboard && (!tokens_.all.empty() || is_allowed)) {
        response.set("Content-Security-Policy", dashboard_policy);
        set(response, http::status::ok, "text/html; charset=utf-8", dashboard_page);
    } else if (!is_allowed) {
        co_await refuse_login(request, response);
    } else if (call.what == What::devices) {
        set(response, http::status::ok, "application/json", devices_json());
    } else if (call.what == What::metrics) {
        const Gauges gauges{services_.devices.count(),
                            services_.devices.handshakes(),
                            services_.devices.open_exchanges(),
                            services_.budget.used,
                            services_.budget.limit,
                            log::lost_lines(),
                            services_.access_log.lost_lines()};
        set(response, http::status::ok, "text/plain; version=0.0.4",
            to_prometheus(services_.metrics, gauges));
    } else if (call.what == What::web_token && is_from_elsewhere(request)) {
        refuse(response, http::status::forbidden, "the request comes from another site's page");
    } else if (call.what == What::web_token) {
        co_await web_token(connection, call.device_id, response);
    } else if (call.what == What::wrong_method) {
        response.set(http::field::allow, call.device_id.empty() ? "GET, HEAD" : "POST");
        refuse(response, http::status::method_not_allowed, "that is not what can be done here");
    } else {
        refuse(response, http::status::not_found, "there is nothing here");
    }
}

// Only who sends a token is made to wait: without one there is nothing to guess.
Awaitable<void> Admin::refuse_login(const Request& request, Response& response) {
    failed_logins_.add();
    response.set(http::field::www_authenticate, "Bearer");
    refuse(response, http::status::unauthorized,
           tokens_.all.empty() && request[http::field::authorization].empty()
               ? "without a token this listener is for requests that come straight from this "
                 "machine and name it by address or as localhost"
               : "the bearer token is missing or wrong");
    if (request[http::field::authorization].empty())
        co_return;
    error_code ignored;
    Timer pause(services_.executor, failed_login_pause);
    co_await pause.async_wait(into(ignored));
}

// A device is asked once at a time: somebody who asks in a loop keeps nobody else from it.
Awaitable<void> Admin::web_token(const Connection& connection, std::string device_id,
                                 Response& response) {
    const auto session = services_.devices.find(device_id);
    if (!session) {
        refuse(response, http::status::not_found, "no device of that id is connected");
        co_return;
    }
    const auto [place, is_first] = asked_for_tokens_.insert(device_key(device_id));
    if (!is_first) {
        refuse(response, http::status::too_many_requests,
               "the device is being asked for its web token already");
        co_return;
    }
    const Asked asked{asked_for_tokens_, place, alive_};
    log::info("the operator at ", connection.address, " asks device ", device_id,
              " for its web token");
    const auto exchange = std::make_shared<Exchange>(
        Exchange::Surroundings{services_.executor,
                               services_.deadlines,
                               services_.budget,
                               max_web_token_bytes,
                               {nullptr, session->memory()}},
        make_packet(PacketType::web_token, 0, web_token_request), services_.config.devices.answer);
    if (!session->submit(exchange)) {
        refuse(response, http::status::service_unavailable,
               "the device has too many requests open");
        co_return;
    }
    const auto state = co_await exchange->answered();
    std::string body;
    std::vector<char> bytes;
    bool more = co_await exchange->take(bytes);
    while (more) {
        body.append(bytes.data(), bytes.size());
        more = co_await exchange->take(bytes);
    }
    if (state == Exchange::State::timed_out)
        refuse(response, http::status::gateway_timeout, "the device did not answer in time");
    else if (exchange->state() != Exchange::State::complete)
        refuse(response, http::status::bad_gateway, "the device's connection ended");
    else
        set(response, http::status::ok, "application/json", with_escaped_controls(body));
}

std::string Admin::devices_json() const {
    const auto& front = services_.config.front;
    const auto port = front.public_port ? front.public_port : services_.front_port;
    json::array list;
    services_.devices.for_each([&](const DeviceSession& session) {
        const Hello& hello = session.hello();
        const DeviceFigures& figures = session.figures();
        list.push_back(json::object{
            {"id", hello.device_id},
            {"mac", hello.mac},
            {"firmware", hello.firmware_id},
            {"address", session.address()},
            {"since", iso_time(figures.since)},
            {"last_heartbeat", time_or_empty(figures.last_heartbeat)},
            {"requests", figures.requests},
            {"open", session.open_exchanges()},
            {"bytes_in", figures.bytes_in},
            {"bytes_out", figures.bytes_out},
            {"last_error", figures.last_error},
            {"url", (front.tls.certificate.empty() ? "http://" : "https://") +
                        device_key(hello.device_id) + "." + front.base_domain + ":" +
                        std::to_string(port) + "/"},
        });
    });
    std::uint64_t requests = 0;
    for (const auto& [status, count] : services_.metrics.requests_by_status)
        requests += count;
    return json::serialize(json::object{
               {"time", iso_time(std::chrono::system_clock::now())},
               {"draining", services_.draining},
               {"requests", requests},
               {"devices", std::move(list)},
           }) +
           "\n";
}

} // namespace relay
