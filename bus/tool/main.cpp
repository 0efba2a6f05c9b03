// ubus: the bus from the command line.

#include "tool/command.h"
#include "tool/deadline.h"
#include "tool/print.h"

namespace {

constexpr int exit_usage = 1;
constexpr int exit_no_broker = 255;

void print_usage(FILE* out) {
    fprintf(out,
            "Usage: ubus [-s socket] [-t seconds] [-S] [-v] command\n"
            "  -s socket   the broker's socket (default: %s)\n"
            "  -t seconds  how long to wait, 0 for without end (default: 30; listen: 0)\n"
            "  -S          print answers on one line\n"
            "  -v          list methods as well\n"
            "Commands:\n",
            UBUS_UNIX_SOCKET);
    for (const bus::command& each : bus::commands) {
        fprintf(out, "  %s %s\n", each.name, each.usage);
    }
}

int run(const bus::command& command, const bus::tool_options& options, char** arguments) {
    bus::deadline_set(options.timeout_ms);
    ubus_context* ctx = ubus_connect(options.socket);
    if (!ctx) {
        fprintf(stderr, "Failed to connect to ubus\n");
        return exit_no_broker;
    }
    // uloop has taken these to end its loop; a tool just ends, whatever it waits for.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    const int exit_status = command.run(ctx, options, arguments);
    ubus_free(ctx);
    uloop_done();
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "ubus: standard output: %s\n", strerror(errno));
        return EXIT_FAILURE;
    }
    if (!bus::printed_all()) {
        fprintf(stderr, "ubus: not enough memory to print all\n");
        return EXIT_FAILURE;
    }
    return exit_status;
}

} // namespace

int main(int argc, char** argv) {
    bus::tool_options options;
    int first;
    if (!bus::options_read(argc, argv, options, &first)) {
        print_usage(stderr);
        return exit_usage;
    }
    if (options.help) {
        print_usage(stdout);
        return EXIT_SUCCESS;
    }
    const bus::command* command =
        first < argc ? bus::command_find(argv[first], argc - first - 1) : nullptr;
    if (!command) {
        print_usage(stderr);
        return exit_usage;
    }
    return run(*command, options, argv + first + 1);
}
