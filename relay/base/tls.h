// Server TLS: certificates, and the one stream type of users and devices.
#pragma once

#include "base/asio.h"
#include "base/config.h"

#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>

#include <memory>
#include <string>
#include <vector>

namespace relay {

using TlsContext = std::shared_ptr<asio::ssl::context>;
using TlsStream = asio::ssl::stream<Socket&>;

// TLS 1.2 and 1.3, with ciphers that are authenticated and keys that are not kept. On failure
// returns null and puts one sentence into `error`.
TlsContext make_tls_context(const CertificateFiles& files, std::string& error);

// The same with more certificates: whoever asks for a name that one of them is for is shown that
// one, and everybody else the first.
TlsContext make_tls_context(const CertificateFiles& first,
                            const std::vector<CertificateFiles>& more, std::string& error);

// For devices: a router's processor has no instructions for AES, so ChaCha20 goes first.
void prefer_ciphers_of_small_processors(asio::ssl::context& context);

} // namespace relay
