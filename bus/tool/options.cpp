#include "tool/options.h"

#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

namespace bus {

namespace {

constexpr int default_timeout_s = 30;
constexpr int timeout_max_s = INT_MAX / 1000;

bool read_seconds(const char* text, int* milliseconds) {
    char* end;
    errno = 0;
    const long seconds = strtol(text, &end, 10);
    const bool is_number = text[0] >= '0' && text[0] <= '9' && *end == '\0';
    if (!is_number || errno != 0 || seconds > timeout_max_s) {
        fprintf(stderr, "ubus: -t %s: seconds must be a number from 0 to %d\n", text,
                timeout_max_s);
        return false;
    }
    *milliseconds = static_cast<int>(seconds) * 1000;
    return true;
}

} // namespace

bool options_read(int argc, char** argv, tool_options& options, int* first) {
    options = {};
    options.timeout_ms = default_timeout_s * 1000;
    opterr = 0; // one line of our own instead
    for (int option; (option = getopt(argc, argv, ":s:t:Svh")) != -1;) {
        switch (option) {
        case 's':
            options.socket = optarg;
            break;
        case 't':
            options.timeout_given = true;
            if (!read_seconds(optarg, &options.timeout_ms)) {
                return false;
            }
            break;
        case 'S':
            options.simple = true;
            break;
        case 'v':
            options.verbose = true;
            break;
        case 'h':
            options.help = true;
            break;
        case ':':
            fprintf(stderr, "ubus: option -%c needs a value\n", optopt);
            return false;
        default:
            fprintf(stderr, "ubus: unknown option -%c\n", optopt);
            return false;
        }
    }
    *first = optind;
    return true;
}

} // namespace bus
