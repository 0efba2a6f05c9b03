// A key and a certificate of it, as files.
#pragma once

#include "scratch_folder.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <string>

template <auto Free>
struct Freed {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};

// Writes NAME.key and NAME.pem, for `host`.
inline void write_certificate(const ScratchFolder& folder, const std::string& name,
                              const char* host = "relay.test") {
    using File = std::unique_ptr<FILE, Freed<fclose>>;
    const std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>> key(EVP_EC_gen("P-256"));
    const std::unique_ptr<X509, Freed<X509_free>> certificate(X509_new());
    X509_set_version(certificate.get(), X509_VERSION_3);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(host), -1, -1, 0);
    ASSERT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);
    const File certificate_file(fopen(folder.file(name + ".pem").c_str(), "w"));
    const File key_file(fopen(folder.file(name + ".key").c_str(), "w"));
    ASSERT_TRUE(PEM_write_X509(certificate_file.get(), certificate.get()));
    ASSERT_TRUE(
        PEM_write_PrivateKey(key_file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr));
}
