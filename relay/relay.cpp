#include "relay.h"

#include "base/guarded.h"
#include "base/log.h"

#include <csignal>
#include <sys/resource.h>

namespace relay {
namespace {

constexpr std::chrono::seconds farewell{2};
constexpr std::size_t other_descriptors = 32; // listeners, logs, what libraries open

constexpr std::chrono::seconds renewal_interval{2};

std::vector<std::string> paths_of(const CertificateFiles& first,
                                  const std::vector<CertificateFiles>& more) {
    std::vector<std::string> paths = {first.certificate, first.key};
    for (const auto& files : more)
        paths.insert(paths.end(), {files.certificate, files.key});
    return paths;
}

} // namespace

Relay::Relay(Config config)
    : config_(std::move(config)), budget_{config_.memory_bytes}, clients_(config_.trusted_proxies),
      deadlines_(context_.get_executor()),
      devices_(context_.get_executor(), config_, deadlines_, budget_, clients_, metrics_),
      front_({context_.get_executor(), config_, deadlines_, budget_, clients_, metrics_,
              access_log_, devices_}),
      admin_({context_.get_executor(), config_, deadlines_, budget_, clients_, metrics_, devices_,
              access_log_, front_port_, draining_}),
      signals_(context_, SIGTERM, SIGINT, SIGHUP),
      device_certificate_(paths_of(config_.devices.tls, {})),
      front_certificates_(paths_of(config_.front.tls, config_.front.more_certificates)),
      look_again_(deadlines_, [this] { look_for_renewed_certificates(); }),
      doors_(deadlines_, [this] { close_doors(); }), drained_(deadlines_, [this] { end(); }) {}

bool Relay::load(std::string& error) {
    return devices_.load_certificate(error) && devices_.load_policy(error) && front_.load(error) &&
           admin_.load(error) && access_log_.open(config_.access_log, error);
}

bool Relay::listen(std::string& error) {
    if (!devices_.listen(error) || !front_.listen(error) || !admin_.listen(error))
        return false;
    front_port_ = front_.port();
    log::info("devices connect to ", config_.devices.listen.host, " port ", devices_.port());
    log::info("users come to ", config_.front.listen.host, " port ", front_port_);
    log::info("operators come to ", config_.admin.listen.host, " port ", admin_.port());
    return true;
}

std::string Relay::shortage() const {
    const auto wanted = config_.devices.max_connections + config_.front.max_connections +
                        Admin::max_connections + other_descriptors;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted)
        return {};
    return "the limits in the configuration allow connections that need " + std::to_string(wanted) +
           " descriptors, and this process may have " + std::to_string(limit.rlim_cur) +
           ": lower max_connections, or raise the limit of open files";
}

void Relay::run() {
    deadlines_.start([this] { each_sweep(); });
    wait_for_signal();
    look_again_.set(renewal_interval);
    service_manager_.ready();
    run_through([this] { context_.run(); });
    // Everything is closed; what still ran to its end on that gives back what it holds.
    context_.restart();
    run_through([this] { context_.run_for(farewell); });
    log::info("ended");
}

void Relay::wait_for_signal() {
    signals_.async_wait(reserved(signal_memory_, [this](error_code error, int number) {
        if (error)
            return;
        guarded("a signal failed", [this, number] { obey(number); });
        if (!context_.stopped())
            wait_for_signal();
    }));
}

void Relay::obey(int number) {
    if (number == SIGHUP)
        reload();
    else if (draining_)
        end(); // asked twice
    else
        drain();
}

void Relay::reload() {
    service_manager_.reloading();
    guarded("a reload failed", [this] { read_files_again(); });
    service_manager_.ready();
}

// Each part on its own: a mistake in one file keeps nothing else from being taken over.
void Relay::read_files_again() {
    std::string error;
    bool all_well = true;
    const auto check = [&](bool loaded) {
        if (!loaded)
            log::error("not reloaded: ", error);
        all_well = all_well && loaded;
    };
    check(devices_.load_certificate(error));
    check(devices_.load_policy(error));
    check(front_.load(error));
    check(admin_.load(error));
    check(access_log_.open(config_.access_log, error));
    device_certificate_.forget_changes();
    front_certificates_.forget_changes();
    if (all_well)
        log::info("reloaded certificates, policy, token and access log");
}

// Certificates are renewed by programs that know nothing of this one.
void Relay::look_for_renewed_certificates() {
    const auto take_over = [](std::string_view whose, auto& part, auto load_anew) {
        std::string error;
        if ((part.*load_anew)(error))
            log::info("the certificate of the ", whose, " has been renewed");
        else
            log::error("the renewed certificate of the ", whose, " is not taken over: ", error);
    };
    look_again_.set(renewal_interval); // first: what follows may lack memory
    if (device_certificate_.has_changed())
        take_over("devices' side", devices_, &Devices::load_certificate);
    if (front_certificates_.has_changed())
        take_over("users' side", front_, &Front::load);
}

// Load balancers ask for /healthz and hear 503 from now on. Until they have, they send users and
// devices here, who are let in for half of the time.
void Relay::drain() {
    log::info("draining: everything ends within ", config_.drain.count(),
              " s, and nobody comes in during the second half of them");
    draining_ = true;
    service_manager_.stopping(config_.drain);
    doors_.set(Clock::duration(config_.drain) / 2);
    drained_.set(config_.drain);
}

void Relay::close_doors() {
    log::info("draining: nobody comes in any more, open requests finish");
    doors_are_closed_ = true;
    devices_.drain();
    front_.drain();
}

void Relay::each_sweep() {
    access_log_.flush();
    service_manager_.each_sweep(devices_.count(), metrics_.user_connections_open);
    if (doors_are_closed_ && front_.is_idle())
        end();
}

void Relay::end() {
    front_.close_all();
    devices_.close_all();
    admin_.close_all();
    access_log_.finish();
    deadlines_.stop();
    signals_.cancel();
    context_.stop();
}

} // namespace relay
