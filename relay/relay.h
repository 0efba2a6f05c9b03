// The relay: its three listeners and what they share, started, reloaded, drained and ended as one.
#pragma once

#include "admin/admin.h"
#include "base/access_log.h"
#include "base/config.h"
#include "base/file_watch.h"
#include "base/service_manager.h"
#include "front/front.h"

#include <boost/asio/basic_signal_set.hpp>

#include <string>

namespace relay {

class Relay {
public:
    explicit Relay(Config config);

    // Reads every file that the configuration names. False: `error` says what is wrong with one.
    bool load(std::string& error);
    bool listen(std::string& error);
    // One sentence when the connections that the configuration allows need more descriptors than
    // the process may have; empty when there are enough.
    std::string shortage() const;
    // Serves until SIGTERM or SIGINT and the drain after it.
    void run();

private:
    void wait_for_signal();
    void obey(int number);
    void reload();
    void read_files_again();
    void look_for_renewed_certificates();
    void drain();
    void close_doors();
    void each_sweep();
    void end();

    const Config config_;
    MemoryBudget budget_; // as clients_: connections give back what they hold when the context goes
    Clients clients_;
    asio::io_context context_{1};
    Deadlines deadlines_;
    Metrics metrics_;
    AccessLog access_log_;
    Devices devices_;
    Front front_;
    std::uint16_t front_port_ = 0;
    bool draining_ = false;
    bool doors_are_closed_ = false;
    Admin admin_;
    ServiceManager service_manager_;
    asio::basic_signal_set<Executor> signals_;
    const std::shared_ptr<ReservedMemory> signal_memory_ = std::make_shared<ReservedMemory>();
    FileWatch device_certificate_;
    FileWatch front_certificates_;
    Deadline look_again_;
    // A drain's two steps: nobody comes in from the first on, everything has ended by the second.
    Deadline doors_;
    Deadline drained_;
};

} // namespace relay
