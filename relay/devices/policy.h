// Which devices are admitted. A JSON file, one of:
//
//   { "admit": "all" }
//   { "devices": [ { "device_id": "...", "mac": "AABBCCDDEEFF", "token_sha256": "64 hex digits" } ]
//   }
//
// "mac" and "token_sha256" are optional: what stands there must be what the device says. Tokens are
// kept as hashes only (printf %s TOKEN | sha256sum); they are random, so no salt is needed.
#pragma once

#include "devices/hello.h"

#include <map>
#include <optional>
#include <string>

namespace relay {

struct Admission {
    std::string mac; // upper case; empty: any
    std::optional<Sha256> token;
};

struct Policy {
    bool admit_all = false;
    std::map<std::string, Admission> devices; // by device_key()

    // Empty when the device is admitted, else why not, for the relay's own log.
    std::string objection(const Hello& hello) const;
};

// On failure returns nothing and puts one sentence into `error`.
std::optional<Policy> load_policy(const std::string& path, std::string& error);

// The same for the text of the file `path`.
std::optional<Policy> parse_policy(std::string_view text, const std::string& path,
                                   std::string& error);

} // namespace relay
