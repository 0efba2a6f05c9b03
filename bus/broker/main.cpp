// ubusd: the broker. Runs in the foreground until SIGTERM or SIGINT.

#include <csignal>
#include <getopt.h>
#include <sys/resource.h>

#include "broker/broker.h"

namespace {

constexpr int exit_usage = 2;

void print_usage(FILE* out) {
    fprintf(out,
            "Usage: ubusd [-s socket]\n"
            "  -s socket  listen there (default: %s)\n"
            "  -h         print this and exit\n",
            UBUS_UNIX_SOCKET);
}

// Each client is a descriptor; the soft limit is meant for programs that use select().
void raise_descriptor_limit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// uloop forgets, when it begins to run, that it was asked to end: until then the asking waits.
void set_end_blocked(bool blocked) {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    sigaddset(&end, SIGINT);
    sigprocmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &end, nullptr);
}

void on_running(uloop_timeout*) {
    set_end_blocked(false);
}

int run(const char* path) {
    raise_descriptor_limit();
    set_end_blocked(true);
    uloop_init();
    bus::broker broker;
    if (!bus::broker_open(broker, path)) {
        uloop_done();
        return EXIT_FAILURE;
    }
    uloop_timeout running = {};
    running.cb = on_running;
    uloop_timeout_set(&running, 0);
    uloop_run();
    bus::broker_close(broker);
    uloop_done();
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    const char* path = UBUS_UNIX_SOCKET;
    opterr = 0; // one line of our own instead
    for (int option; (option = getopt(argc, argv, ":s:h")) != -1;) {
        switch (option) {
        case 's':
            path = optarg;
            break;
        case 'h':
            print_usage(stdout);
            return EXIT_SUCCESS;
        case ':':
            fprintf(stderr, "ubusd: option -%c needs a value; see ubusd -h\n", optopt);
            return exit_usage;
        default:
            fprintf(stderr, "ubusd: unknown option -%c; see ubusd -h\n", optopt);
            return exit_usage;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "ubusd: unexpected argument \"%s\"; see ubusd -h\n", argv[optind]);
        return exit_usage;
    }
    return run(path);
}
