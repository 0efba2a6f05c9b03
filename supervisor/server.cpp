#include "server.h"

#include <arpa/inet.h>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace {

constexpr size_t LABEL_MAX = 63;
constexpr unsigned PORT_MAX = 65535;

bool is_label_character(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
}

// A trailing dot, which ends an absolute name, is allowed.
bool is_name(const char* host) {
    size_t label = 0;
    for (const char* c = host; *c != '\0'; c++) {
        if (*c == '.') {
            if (label == 0) {
                return false;
            }
            label = 0;
        } else if (!is_label_character(*c) || ++label > LABEL_MAX) {
            return false;
        }
    }
    return *host != '\0';
}

// What a resolver would take for an address, in one of its old spellings or not.
bool looks_like_address(const char* host) {
    return host[strspn(host, "0123456789.")] == '\0';
}

bool parse_port(const char* text, uint16_t* out) {
    unsigned port = 0;
    for (const char* c = text; *c != '\0'; c++) {
        if (isdigit(static_cast<unsigned char>(*c)) == 0) {
            return false;
        }
        port = port * 10 + static_cast<unsigned>(*c - '0');
        if (port > PORT_MAX) {
            return false;
        }
    }
    *out = static_cast<uint16_t>(port);
    return port > 0;
}

} // namespace

bool server_parse(const char* text, server* out) {
    const char* colon = strrchr(text, ':');
    if (colon == nullptr || static_cast<size_t>(colon - text) >= HOST_SIZE) {
        return false;
    }
    server parsed = {};
    memcpy(parsed.host, text, static_cast<size_t>(colon - text));
    uint32_t address = 0;
    bool host =
        looks_like_address(parsed.host) ? server_address(parsed, &address) : is_name(parsed.host);
    if (!host || !parse_port(colon + 1, &parsed.port)) {
        return false;
    }
    *out = parsed;
    return true;
}

server_text server_show(const server& shown) {
    server_text result;
    snprintf(result.text, sizeof result.text, "%s:%u", shown.host, unsigned{shown.port});
    return result;
}

bool server_equal(const server& one, const server& other) {
    return one.port == other.port && strcasecmp(one.host, other.host) == 0;
}

bool server_address(const server& asked, uint32_t* address) {
    in_addr parsed = {};
    if (inet_pton(AF_INET, asked.host, &parsed) != 1) {
        return false;
    }
    *address = parsed.s_addr;
    return true;
}
