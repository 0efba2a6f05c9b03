// The daemon: gathers the device's identity, then runs the control side on this thread for ever.

#include <csignal>
#include <cstdio>
#include <unistd.h>

#include "control/start_up.h"
#include "core/device_identity.h"
#include "core/footprint.h"
#include "core/log.h"

namespace {

void _ignore_signal(int /*signal*/) {}

// A vanished reader of the log must not end the daemon. A handler, not SIG_IGN: helper
// programs would inherit the latter and print into a closed pipe for ever.
void _survive_closed_pipes() {
    struct sigaction action = {};
    action.sa_handler = _ignore_signal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

} // namespace

int main() {
    cloud_name_thread("main");
    setvbuf(stdout, nullptr, _IOLBF, 0); // a reader of the pipe sees every line at once
    cloud_output_changed(STDOUT_FILENO);
    cloud_output_changed(STDERR_FILENO);
    _survive_closed_pipes();
    set_up_memory();

    adSysApiInit();
    swCloudRelayClientInit();

    // Only when the event loop ended. A running session goes on until the process is killed.
    for (;;) {
        sleep(1);
    }
}
