// Server TLS: certificates, and the one stream type of users and devices.
#pragma once

#include "base/asio.h"

#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>

#include <memory>
#include <string>

namespace relay {

using TlsContext = std::shared_ptr<asio::ssl::context>;
using TlsStream = asio::ssl::stream<Socket&>;

// TLS 1.2 and 1.3. On failure returns null and puts one sentence into `error`.
TlsContext make_tls_context(const std::string& certificate, const std::string& key,
                            std::string& error);

// For devices: a router's processor has no instructions for AES, so ChaCha20 goes first.
void prefer_ciphers_of_small_processors(asio::ssl::context& context);

} // namespace relay
