#pragma once

#include <string>

#include "support/namespaces.h"

// The router's helper script that prints a web token, run by the real lua interpreter. Requires
// private namespaces.

constexpr char TOKEN_HELPER[] = "/usr/lib/lua/cloud_relay_client/cloud_relay_client_helper.lua";

inline void install_token_helper(const std::string& script) {
    static const bool isPrivate = (cover_folder("/usr/lib", {"lua"}), true);
    static_cast<void>(isPrivate);
    write_file(TOKEN_HELPER, script);
}
