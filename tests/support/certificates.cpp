#include "support/certificates.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace {

struct openssl_deleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using key_ptr = std::unique_ptr<EVP_PKEY, openssl_deleter>;
using certificate_ptr = std::unique_ptr<X509, openssl_deleter>;

void require(bool done, const char* what) {
    if (!done) {
        fprintf(stderr, "%s failed\n", what);
        ERR_print_errors_fp(stderr);
        abort();
    }
}

void add_extension(X509* certificate, int kind, const char* value) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
    require(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, value);
    X509_EXTENSION_free(extension);
}

certificate_ptr certify(EVP_PKEY* key, const char* name, const X509* issuer, EVP_PKEY* issuerKey) {
    constexpr long DAY_S = 24 * 60 * 60;
    bool isRoot = issuer == nullptr;
    certificate_ptr certificate(X509_new());
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), isRoot ? 1 : 2);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -DAY_S);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), DAY_S);
    X509_NAME* subject = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), isRoot ? subject : X509_get_subject_name(issuer));
    X509_set_pubkey(certificate.get(), key);
    add_extension(certificate.get(), NID_basic_constraints,
                  isRoot ? "critical,CA:TRUE" : "CA:FALSE");
    if (isRoot) {
        add_extension(certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        add_extension(certificate.get(), NID_subject_alt_name, "DNS:relay.test");
    }
    require(X509_sign(certificate.get(), issuerKey, EVP_sha256()) > 0, "X509_sign");
    return certificate;
}

template <class Write>
std::string pem(Write write) {
    std::unique_ptr<BIO, openssl_deleter> memory(BIO_new(BIO_s_mem()));
    require(write(memory.get()) == 1, "writing PEM");
    char* text = nullptr;
    long size = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<size_t>(size)};
}

std::string pem_of(X509* certificate) {
    return pem([&](BIO* out) { return PEM_write_bio_X509(out, certificate); });
}

} // namespace

certificates make_certificates() {
    key_ptr rootKey(EVP_EC_gen("P-256"));
    key_ptr serverKey(EVP_EC_gen("P-256"));
    require(rootKey != nullptr && serverKey != nullptr, "EVP_EC_gen");
    certificate_ptr root = certify(rootKey.get(), "Relay Test Root", nullptr, rootKey.get());
    certificate_ptr server = certify(serverKey.get(), "relay.test", root.get(), rootKey.get());
    std::string key = pem([&](BIO* out) {
        return PEM_write_bio_PrivateKey(out, serverKey.get(), nullptr, nullptr, 0, nullptr,
                                        nullptr);
    });
    return {pem_of(root.get()), pem_of(server.get()), key};
}

const certificates& shared_certificates() {
    static const certificates shared = make_certificates();
    return shared;
}
