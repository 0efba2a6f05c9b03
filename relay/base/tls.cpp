#include "base/tls.h"

#include <memory>
#include <openssl/ssl.h>

namespace relay {
namespace {

constexpr const char* tls12_ciphers = "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
                                      "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
                                      "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384";
constexpr const char* tls13_ciphers =
    "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384";

void load(asio::ssl::context& context, const std::string& certificate, const std::string& key,
          std::string& error) {
    error_code wrong;
    context.use_certificate_chain_file(certificate, wrong);
    if (wrong) {
        error = certificate + " is no usable certificate: " + wrong.message();
        return;
    }
    context.use_private_key_file(key, asio::ssl::context::pem, wrong);
    if (wrong)
        error = key + " is no usable private key for the certificate: " + wrong.message();
    else if (SSL_CTX_check_private_key(context.native_handle()) != 1)
        error = key + " is not the private key of " + certificate;
}

} // namespace

TlsContext make_tls_context(const std::string& certificate, const std::string& key,
                            std::string& error) {
    // Not by asio's constructor from a method: where OpenSSL has no memory to record an error
    // either, it goes on with the null handle.
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> made(SSL_CTX_new(TLS_server_method()),
                                                           SSL_CTX_free);
    SSL_CTX* const native = made.get();
    if (!native) {
        error = "no memory for a TLS context";
        return nullptr;
    }
    auto context = std::make_shared<asio::ssl::context>(native);
    (void)made.release(); // the context owns it from here on
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    SSL_CTX_set_options(native, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // Buffers of idle connections go back: there are thousands.
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    error.clear();
    load(*context, certificate, key, error);
    return error.empty() ? context : nullptr;
}

void prefer_ciphers_of_small_processors(asio::ssl::context& context) {
    SSL_CTX* const native = context.native_handle();
    SSL_CTX_set_cipher_list(native, tls12_ciphers);
    SSL_CTX_set_ciphersuites(native, tls13_ciphers);
    // Devices keep one connection and resume none: no tickets.
    SSL_CTX_set_options(native, SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(native, 0);
}

} // namespace relay
