// Keeps the daemon connected: see supervision.h for how, bus.h for how to talk to it, and
// configuration.h for what can be configured.

#include "log.h"
#include "supervisor.h"

namespace {

constexpr int EXIT_USAGE = 2;

} // namespace

int main(int argc, char** /*argv*/) {
    if (argc > 1) {
        log_error("usage: cloud_relay_supervisor (no arguments; it is configured in "
                  "/etc/config/cloud_relay)");
        return EXIT_USAGE;
    }
    return supervisor_run();
}
