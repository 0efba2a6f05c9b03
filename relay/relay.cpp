#include "relay.h"

#include "base/guarded.h"
#include "base/log.h"

#include <csignal>

namespace relay {
namespace {

constexpr std::chrono::seconds farewell{2};

} // namespace

Relay::Relay(Config config)
    : config_(std::move(config)), budget_{config_.memory_bytes},
      deadlines_(context_.get_executor()),
      devices_(context_.get_executor(), config_, deadlines_, budget_, clients_, metrics_),
      front_({context_.get_executor(), config_, deadlines_, budget_, clients_, metrics_,
              access_log_, devices_}),
      admin_({context_.get_executor(), config_, deadlines_, budget_, metrics_, devices_,
              front_port_, draining_}),
      signals_(context_, SIGTERM, SIGINT, SIGHUP), drained_(deadlines_, [this] { end(); }) {}

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

void Relay::run() {
    deadlines_.start([this] { each_sweep(); });
    wait_for_signal();
    run_through([this] { context_.run(); });
    // Everything is closed; what still ran to its end on that gives back what it holds.
    context_.restart();
    run_through([this] { context_.run_for(farewell); });
    log::info("ended");
}

void Relay::wait_for_signal() {
    signals_.async_wait([this](error_code error, int number) {
        if (error)
            return;
        guarded("a signal failed", [this, number] { obey(number); });
        if (!context_.stopped())
            wait_for_signal();
    });
}

void Relay::obey(int number) {
    if (number == SIGHUP)
        reload();
    else if (draining_)
        end(); // asked twice
    else
        drain();
}

// Each part on its own: a mistake in one file keeps nothing else from being taken over.
void Relay::reload() {
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
    if (all_well)
        log::info("reloaded certificates, policy, token and access log");
}

void Relay::drain() {
    log::info("draining: nobody comes in, open requests have ", config_.drain.count(), " s");
    draining_ = true;
    devices_.drain();
    front_.drain();
    drained_.set(config_.drain);
    if (front_.is_idle())
        end();
}

void Relay::each_sweep() {
    access_log_.flush();
    if (draining_ && front_.is_idle())
        end();
}

void Relay::end() {
    front_.close_all();
    devices_.close_all();
    admin_.close_all();
    access_log_.flush();
    deadlines_.stop();
    signals_.cancel();
    context_.stop();
}

} // namespace relay
