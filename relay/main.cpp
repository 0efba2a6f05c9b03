// relay_server: where devices and their owners meet.

#include "base/log.h"
#include "relay.h"

#include <cstdio>
#include <exception>
#include <string_view>

#include <csignal>
#include <getopt.h>
#include <malloc.h>
#include <sys/resource.h>

namespace {

constexpr char usage[] =
    "usage: relay_server --config FILE [--check]\n"
    "       relay_server --help | --version\n"
    "\n"
    "Relays HTTP requests of users to devices that keep a connection to it.\n"
    "\n"
    "  --config FILE   the configuration: JSON with comments, see relay_server.json\n"
    "  --check         read every file that the configuration names, then end\n"
    "\n"
    "SIGHUP reads certificates, policy and token again; SIGTERM lets open requests finish.\n";

enum Status { done = 0, out_of_resources = 1, wrong_usage = 2 };

// The one sentence of a refused start.
Status fail(Status status, const char* sentence) {
    std::fprintf(stderr, "relay_server: %s\n", sentence);
    return status;
}

// The command line is wrong, or a file, or an address that it names.
Status fail(const std::string& sentence) {
    return fail(wrong_usage, sentence.c_str());
}

std::string unknown(std::string_view argument) {
    return "unknown argument \"" + std::string(argument) + "\"; --help lists what there is";
}

struct Options {
    const char* config = nullptr;
    bool check = false;
    bool help = false;
    bool version = false;
};

// Empty, or what is wrong.
std::string parse(int count, char** arguments, Options& options) {
    static constexpr option known[] = {{"config", required_argument, nullptr, 'c'},
                                       {"check", no_argument, nullptr, 'k'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, 'v'},
                                       {}};
    opterr = 0; // one sentence of our own instead
    while (true) {
        const std::string_view argument = optind < count ? arguments[optind] : "";
        const int found = getopt_long(count, arguments, "+:", known, nullptr);
        if (found == -1)
            break;
        if (found == 'c')
            options.config = optarg;
        else if (found == 'k')
            options.check = true;
        else if (found == 'h')
            options.help = true;
        else if (found == 'v')
            options.version = true;
        else if (found == ':')
            return std::string(argument) + " wants a file";
        else
            return unknown(argument);
    }
    if (optind < count)
        return unknown(arguments[optind]);
    if (!options.config && !options.help && !options.version)
        return "no configuration given; --help says how";
    return {};
}

// A connection is a descriptor; the system's usual soft limit of 1024 is for programs that select.
void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Large bodies go back to the system when they are freed. These are the C library's own thresholds:
// left to itself it raises them with what it sees freed, and keeps ever larger blocks for the next
// ones, beyond what the relay counts.
void give_large_blocks_back() {
    mallopt(M_MMAP_THRESHOLD, 128 << 10);
    mallopt(M_TRIM_THRESHOLD, 128 << 10);
}

// Throws what the library throws when the system gives no memory, or no descriptor.
Status run(int count, char** arguments) {
    Options options;
    std::string error = parse(count, arguments, options);
    if (!error.empty())
        return fail(error);
    if (options.help || options.version) {
        std::fputs(options.help ? usage : "relay_server " RELAY_VERSION "\n", stdout);
        return done;
    }
    auto config = relay::load_config(options.config, error);
    if (!config)
        return fail(error);

    std::signal(SIGPIPE, SIG_IGN); // of a log that nobody reads; sockets say it by error
    raise_descriptor_limit();
    give_large_blocks_back();
    const relay::log::Background log;
    relay::Relay relay(std::move(*config));
    if (!relay.load(error))
        return fail(error);
    const std::string shortage = relay.shortage();
    if (options.check) {
        if (!shortage.empty())
            std::fprintf(stderr, "relay_server: %s\n", shortage.c_str());
        std::puts("relay_server: the configuration and the files it names are in order");
        return done;
    }
    if (!relay.listen(error))
        return fail(error);
    if (!shortage.empty())
        relay::log::warning(shortage);
    relay.run();
    return done;
}

} // namespace

int main(int count, char** arguments) {
    try {
        return run(count, arguments);
    } catch (const std::exception& failure) {
        return fail(out_of_resources, failure.what());
    }
}
