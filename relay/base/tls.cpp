#include "base/tls.h"

#include <memory>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace relay {
namespace {

// In the order in which the devices' side chooses.
constexpr const char* tls12_ciphers = "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
                                      "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
                                      "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384";
constexpr const char* tls13_ciphers =
    "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384";

void load(asio::ssl::context& context, const CertificateFiles& files, std::string& error) {
    error_code wrong;
    context.use_certificate_chain_file(files.certificate, wrong);
    if (wrong) {
        error = files.certificate + " is no usable certificate: " + wrong.message();
        return;
    }
    context.use_private_key_file(files.key, asio::ssl::context::pem, wrong);
    if (wrong)
        error = files.key + " is no usable private key for the certificate: " + wrong.message();
    else if (SSL_CTX_check_private_key(context.native_handle()) != 1)
        error = files.key + " is not the private key of " + files.certificate;
}

// The certificates of one listener. Whoever holds the first context holds all.
struct Certificates {
    TlsContext first;
    std::vector<TlsContext> more;
};

bool is_for(SSL_CTX* context, const char* name) {
    return X509_check_host(SSL_CTX_get0_certificate(context), name, 0, 0, nullptr) == 1;
}

// Called by OpenSSL within a handshake, when the client has said which name it looks for.
int choose_certificate(SSL* connection, int* /*alert*/, void* argument) {
    const auto& certificates = *static_cast<const Certificates*>(argument);
    const char* const name = SSL_get_servername(connection, TLSEXT_NAMETYPE_host_name);
    if (!name || is_for(certificates.first->native_handle(), name))
        return SSL_TLSEXT_ERR_OK;
    for (const auto& context : certificates.more)
        if (is_for(context->native_handle(), name)) {
            SSL_set_SSL_CTX(connection, context->native_handle());
            break;
        }
    return SSL_TLSEXT_ERR_OK;
}

} // namespace

TlsContext make_tls_context(const CertificateFiles& files, std::string& error) {
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
    SSL_CTX_set_cipher_list(native, tls12_ciphers);
    SSL_CTX_set_ciphersuites(native, tls13_ciphers);
    // Buffers of idle connections go back: there are thousands.
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    error.clear();
    load(*context, files, error);
    return error.empty() ? context : nullptr;
}

TlsContext make_tls_context(const CertificateFiles& first,
                            const std::vector<CertificateFiles>& more, std::string& error) {
    const auto certificates = std::make_shared<Certificates>();
    certificates->first = make_tls_context(first, error);
    if (!certificates->first)
        return nullptr;
    for (const auto& files : more) {
        auto context = make_tls_context(files, error);
        if (!context)
            return nullptr;
        certificates->more.push_back(std::move(context));
    }
    SSL_CTX* const native = certificates->first->native_handle();
    SSL_CTX_set_tlsext_servername_callback(native, choose_certificate);
    SSL_CTX_set_tlsext_servername_arg(native, certificates.get());
    return {certificates, certificates->first.get()};
}

void prefer_ciphers_of_small_processors(asio::ssl::context& context) {
    SSL_CTX* const native = context.native_handle();
    // Devices keep one connection and resume none: no tickets.
    SSL_CTX_set_options(native, SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(native, 0);
}

} // namespace relay
