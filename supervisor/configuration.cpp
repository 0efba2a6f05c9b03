#include "configuration.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <strings.h>
#include <uci.h>

#include "log.h"

namespace {

constexpr char PACKAGE[] = "cloud_relay";
constexpr char SECTION_TYPE[] = "supervisor";
constexpr int64_t MS_PER_SECOND = 1000;
constexpr int64_t HOUR_S = 3600;
constexpr int64_t NUMBER_MAX = 1000000; // above every limit, far below overflow

struct uci_context_deleter {
    void operator()(uci_context* context) const { uci_free_context(context); }
};
using uci_context_ptr = std::unique_ptr<uci_context, uci_context_deleter>;

// A number option: where its value goes, and its limits in the option's own unit.
struct number_option {
    const char* name;
    int64_t configuration::*member;
    const char* allowed; // what the log says of the limits
    int64_t least;
    int64_t most;
    bool seconds; // the text is in seconds with up to three decimals, the member in milliseconds
};

constexpr number_option NUMBER_OPTIONS[] = {
    {"boot_delay", &configuration::boot_delay_ms, "seconds from 0 to 3600", 0,
     HOUR_S* MS_PER_SECOND, true},
    {"pause_min", &configuration::pause_min_ms, "seconds from 0.01 to 3600", 10,
     HOUR_S* MS_PER_SECOND, true},
    {"pause_max", &configuration::pause_max_ms, "seconds from 0.01 to 86400", 10,
     24 * HOUR_S* MS_PER_SECOND, true},
    {"success_after", &configuration::success_after_ms, "seconds from 1 to 86400", MS_PER_SECOND,
     24 * HOUR_S* MS_PER_SECOND, true},
    {"connect_interval", &configuration::connect_interval_ms, "seconds from 0 to 3600", 0,
     HOUR_S* MS_PER_SECOND, true},
    {"object_timeout", &configuration::object_timeout_ms, "seconds from 1 to 3600", MS_PER_SECOND,
     HOUR_S* MS_PER_SECOND, true},
    {"failures_per_server", &configuration::failures_per_server, "a number from 1 to 1000", 1, 1000,
     false},
};

const number_option* find_number_option(const char* name) {
    for (const number_option& known : NUMBER_OPTIONS) {
        if (strcmp(known.name, name) == 0) {
            return &known;
        }
    }
    return nullptr;
}

// Reads digits; returns where they end, null without any or with too many.
const char* parse_digits(const char* text, int64_t* out) {
    const char* c = text;
    for (*out = 0; isdigit(static_cast<unsigned char>(*c)) != 0; c++) {
        *out = *out * 10 + (*c - '0');
        if (*out > NUMBER_MAX) {
            return nullptr;
        }
    }
    return c == text ? nullptr : c;
}

// "1.25" is 1250; at most three decimals.
bool parse_milliseconds(const char* text, int64_t* out) {
    const char* rest = parse_digits(text, out);
    if (rest == nullptr) {
        return false;
    }
    *out *= MS_PER_SECOND;
    if (*rest == '\0') {
        return true;
    }
    int64_t unit = MS_PER_SECOND / 10;
    const char* c = rest + 1;
    for (; isdigit(static_cast<unsigned char>(*c)) != 0 && unit > 0; c++, unit /= 10) {
        *out += unit * (*c - '0');
    }
    return *rest == '.' && c > rest + 1 && *c == '\0';
}

bool parse_number(const number_option& option, const char* text, int64_t* out) {
    int64_t value = 0;
    bool valid = false;
    if (option.seconds) {
        valid = parse_milliseconds(text, &value);
    } else {
        const char* rest = parse_digits(text, &value);
        valid = rest != nullptr && *rest == '\0';
    }
    if (!valid || value < option.least || value > option.most) {
        return false;
    }
    *out = value;
    return true;
}

// The spellings that the router's own scripts take.
bool parse_switch(const char* text, bool* out) {
    constexpr const char* SPELLINGS[][2] = {
        {"0", "1"}, {"no", "yes"}, {"off", "on"}, {"false", "true"}, {"disabled", "enabled"}};
    for (const auto& pair : SPELLINGS) {
        for (int value = 0; value < 2; value++) {
            if (strcasecmp(text, pair[value]) == 0) {
                *out = value == 1;
                return true;
            }
        }
    }
    return false;
}

// --- one function a kind of option ---

void read_switch(const char* text, configuration* out) {
    if (parse_switch(text, &out->enabled)) {
        return;
    }
    log_error("%s: option 'enabled' is '%s', which is neither 1 nor 0; 1 is taken", PACKAGE, text);
}

void read_number(const number_option& option, const char* text, configuration* out) {
    if (parse_number(option, text, &(out->*option.member))) {
        return;
    }
    int64_t kept = out->*option.member / (option.seconds ? MS_PER_SECOND : 1);
    log_error("%s: option '%s' is '%s', but must be %s; %lld is taken", PACKAGE, option.name, text,
              option.allowed, static_cast<long long>(kept));
}

void read_server(const char* text, configuration* out) {
    server parsed = {};
    if (!server_parse(text, &parsed)) {
        log_error("%s: server '%s' is no host:port with a name or an IPv4 address and a port from "
                  "1 to 65535; it is left out",
                  PACKAGE, text);
    } else if (configuration_find(*out, parsed) < out->server_count) {
        log_error("%s: server '%s' is listed twice; its first place holds", PACKAGE, text);
    } else if (out->server_count == SERVERS_MAX) {
        log_error("%s: server '%s' is one too many, %zu is the most; it is left out", PACKAGE, text,
                  SERVERS_MAX);
    } else {
        out->servers[out->server_count++] = parsed;
    }
}

void read_servers(const uci_option* option, configuration* out) {
    if (option->type == UCI_TYPE_STRING) {
        read_server(option->v.string, out);
        return;
    }
    uci_element* item = nullptr;
    uci_foreach_element(&option->v.list, item) {
        read_server(item->name, out);
    }
}

void read_option(const uci_option* option, configuration* out) {
    const char* name = option->e.name;
    const number_option* number = find_number_option(name);
    bool isSwitch = strcmp(name, "enabled") == 0;
    if (strcmp(name, "server") == 0) {
        read_servers(option, out);
    } else if (number == nullptr && !isSwitch) {
        log_error("%s: option '%s' is not known; it is ignored", PACKAGE, name);
    } else if (option->type != UCI_TYPE_STRING) {
        log_error("%s: option '%s' is a list, but must be a single value; it is ignored", PACKAGE,
                  name);
    } else if (isSwitch) {
        read_switch(option->v.string, out);
    } else {
        read_number(*number, option->v.string, out);
    }
}

void read_section(const uci_section* section, configuration* out) {
    uci_element* element = nullptr;
    uci_foreach_element(&section->options, element) {
        read_option(uci_to_option(element), out);
    }
    if (out->pause_max_ms < out->pause_min_ms) {
        log_error("%s: option 'pause_max' is below 'pause_min'; the latter is taken for both",
                  PACKAGE);
        out->pause_max_ms = out->pause_min_ms;
    }
    if (out->enabled && out->server_count == 0) {
        log_error("%s: no usable server is listed; nothing is connected to", PACKAGE);
    }
}

// The first section holds. Null when there is none.
const uci_section* find_section(const uci_package* package) {
    const uci_section* found = nullptr;
    uci_element* element = nullptr;
    uci_foreach_element(&package->sections, element) {
        const uci_section* section = uci_to_section(element);
        if (strcmp(section->type, SECTION_TYPE) != 0) {
            continue;
        }
        if (found != nullptr) {
            log_error("%s: section '%s' is a second one of type 'supervisor'; it is ignored",
                      PACKAGE, element->name);
            continue;
        }
        found = section;
    }
    return found;
}

// With the library's own words.
void log_unreadable(uci_context* context) {
    char* words = nullptr;
    uci_get_errorstr(context, &words, nullptr);
    log_error("%s: the configuration cannot be read%s%s", PACKAGE, words == nullptr ? "" : ": ",
              words == nullptr ? "" : words);
    free(words);
}

} // namespace

configuration configuration_defaults() {
    configuration defaults = {};
    defaults.enabled = true;
    defaults.boot_delay_ms = 10 * MS_PER_SECOND;
    defaults.pause_min_ms = MS_PER_SECOND;
    defaults.pause_max_ms = 300 * MS_PER_SECOND;
    defaults.success_after_ms = 60 * MS_PER_SECOND;
    defaults.connect_interval_ms = 5 * MS_PER_SECOND;
    defaults.object_timeout_ms = 30 * MS_PER_SECOND;
    defaults.failures_per_server = 3;
    return defaults;
}

bool configuration_read(const char* folder, configuration* out) {
    uci_context_ptr context(uci_alloc_context());
    if (context == nullptr) {
        log_error("%s: the configuration cannot be read: no memory", PACKAGE);
        return false;
    }
    if (folder != nullptr) {
        uci_set_confdir(context.get(), folder);
    }
    uci_package* package = nullptr;
    if (uci_load(context.get(), PACKAGE, &package) != UCI_OK) {
        log_unreadable(context.get());
        return false;
    }
    *out = configuration_of(package);
    return true;
}

configuration configuration_of(const uci_package* package) {
    configuration result = configuration_defaults();
    const uci_section* section = find_section(package);
    if (section == nullptr) {
        log_error("%s: there is no section of type 'supervisor'; nothing is connected to", PACKAGE);
    } else {
        read_section(section, &result);
    }
    return result;
}

size_t configuration_find(const configuration& config, const server& asked) {
    size_t i = 0;
    while (i < config.server_count && !server_equal(config.servers[i], asked)) {
        i++;
    }
    return i;
}
