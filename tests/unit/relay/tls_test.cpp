#include "base/tls.h"

#include "certificate_files.h"

#include <gmock/gmock.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

namespace relay {
namespace {

using testing::StartsWith;

class Tls : public testing::Test {
protected:
    void make(const std::string& name, const char* host = "relay.test") {
        write_certificate(folder_, name, host);
    }

    CertificateFiles files(const std::string& certificate, const std::string& key) {
        return {folder_.file(certificate), folder_.file(key)};
    }

    TlsContext context(const std::string& certificate, const std::string& key) {
        return make_tls_context(files(certificate, key), error_);
    }

    std::string mistake(const std::string& certificate, const std::string& key) {
        EXPECT_EQ(context(certificate, key), nullptr);
        return error_;
    }

    struct Agreed {
        std::string version; // and cipher, "nothing" where there is none
        std::string host;    // of the certificate that the client was shown
    };

    std::string agreed(const TlsContext& server_context, int client_version,
                       const char* client_ciphers = nullptr) {
        return handshake(server_context, client_version, client_ciphers, nullptr).version;
    }

    std::string shown_to(const TlsContext& server_context, const char* name) {
        return handshake(server_context, TLS1_3_VERSION, nullptr, name).host;
    }

    // What a server of that context and a client agree on. `name`: what the client looks for.
    Agreed handshake(const TlsContext& server_context, int client_version,
                     const char* client_ciphers, const char* name) {
        const std::unique_ptr<SSL_CTX, Freed<SSL_CTX_free>> client_context(
            SSL_CTX_new(TLS_client_method()));
        SSL_CTX_set_min_proto_version(client_context.get(), 0);
        SSL_CTX_set_max_proto_version(client_context.get(), client_version);
        SSL_CTX_set_security_level(client_context.get(), 0); // offers what is old, too
        if (client_ciphers)
            SSL_CTX_set_cipher_list(client_context.get(), client_ciphers);
        const std::unique_ptr<SSL, Freed<SSL_free>> client(SSL_new(client_context.get()));
        const std::unique_ptr<SSL, Freed<SSL_free>> server(
            SSL_new(server_context->native_handle()));
        BIO* ours = nullptr;
        BIO* theirs = nullptr;
        BIO_new_bio_pair(&ours, 0, &theirs, 0);
        SSL_set_bio(client.get(), ours, ours);
        SSL_set_bio(server.get(), theirs, theirs);
        if (name)
            SSL_set_tlsext_host_name(client.get(), name);
        SSL_set_connect_state(client.get());
        SSL_set_accept_state(server.get());
        for (int turn = 0; turn < 10; ++turn) {
            SSL_do_handshake(client.get());
            SSL_do_handshake(server.get());
        }
        if (!SSL_is_init_finished(client.get()) || !SSL_is_init_finished(server.get()))
            return {"nothing", ""};
        char host[64] = {};
        X509_NAME_get_text_by_NID(X509_get_subject_name(SSL_get0_peer_certificate(client.get())),
                                  NID_commonName, host, sizeof host);
        return {std::string(SSL_get_version(client.get())) + " " + SSL_get_cipher(client.get()),
                host};
    }

    ScratchFolder folder_;
    std::string error_;
};

TEST_F(Tls, TakesACertificateAndItsKey) {
    make("a");
    EXPECT_NE(context("a.pem", "a.key"), nullptr);
    EXPECT_EQ(error_, "");
}

TEST_F(Tls, MissingFilesAreNamed) {
    make("a");
    EXPECT_THAT(mistake("none.pem", "a.key"),
                StartsWith(folder_.file("none.pem") + " is no usable certificate: "));
    EXPECT_THAT(mistake("a.pem", "none.key"),
                StartsWith(folder_.file("none.key") + " is no usable private key"));
}

TEST_F(Tls, FilesOfSomethingElseAreNamed) {
    make("a");
    folder_.write("text", "no certificate\n");
    folder_.write("empty", "");
    for (const char* bad : {"text", "empty", "a.key", "."})
        EXPECT_THAT(mistake(bad, "a.key"),
                    StartsWith(folder_.file(bad) + " is no usable certificate: "));
    for (const char* bad : {"text", "empty", "a.pem", "."})
        EXPECT_THAT(mistake("a.pem", bad),
                    StartsWith(folder_.file(bad) + " is no usable private key"));
}

TEST_F(Tls, KeyOfAnotherCertificateIsAMistake) {
    make("a");
    make("b");
    const std::string said = mistake("a.pem", "b.key");
    EXPECT_THAT(said, StartsWith(folder_.file("b.key") + " is "));
    EXPECT_EQ(said.find('\n'), said.npos) << "one sentence";
}

TEST_F(Tls, FailureLeavesNoTraceInTheNextOne) {
    make("a");
    mistake("none.pem", "a.key");
    EXPECT_NE(context("a.pem", "a.key"), nullptr);
    EXPECT_EQ(error_, "");
}

TEST_F(Tls, SpeaksTls12And13AndNothingOlder) {
    make("a");
    const auto server = context("a.pem", "a.key");
    ASSERT_TRUE(server);
    EXPECT_THAT(agreed(server, TLS1_3_VERSION), StartsWith("TLSv1.3 "));
    EXPECT_THAT(agreed(server, TLS1_2_VERSION), StartsWith("TLSv1.2 "));
    EXPECT_EQ(agreed(server, TLS1_1_VERSION), "nothing");
}

TEST_F(Tls, TakesNoCipherWithoutForwardSecrecyOrAuthentication) {
    make("a");
    const auto server = context("a.pem", "a.key");
    ASSERT_TRUE(server);
    EXPECT_EQ(agreed(server, TLS1_2_VERSION, "AES128-GCM-SHA256:ECDHE-ECDSA-AES128-SHA256"),
              "nothing");
    EXPECT_EQ(agreed(server, TLS1_2_VERSION, "AES128-SHA:ECDHE-ECDSA-AES256-GCM-SHA384"),
              "TLSv1.2 ECDHE-ECDSA-AES256-GCM-SHA384");
}

TEST_F(Tls, ShowsTheCertificateOfTheNameThatIsAskedFor) {
    make("a", "*.a.test");
    make("b", "*.b.test");
    make("c", "c.test");
    const auto server = make_tls_context(
        files("a.pem", "a.key"), {files("b.pem", "b.key"), files("c.pem", "c.key")}, error_);
    ASSERT_TRUE(server) << error_;
    EXPECT_EQ(shown_to(server, "device.a.test"), "*.a.test");
    EXPECT_EQ(shown_to(server, "device.b.test"), "*.b.test");
    EXPECT_EQ(shown_to(server, "C.test"), "c.test");
    EXPECT_EQ(shown_to(server, "elsewhere.test"), "*.a.test");
    EXPECT_EQ(shown_to(server, nullptr), "*.a.test");
}

TEST_F(Tls, NamesTheFurtherCertificateThatIsWrong) {
    make("a");
    EXPECT_EQ(make_tls_context(files("a.pem", "a.key"), {files("none.pem", "a.key")}, error_),
              nullptr);
    EXPECT_THAT(error_, StartsWith(folder_.file("none.pem") + " is no usable certificate: "));
}

TEST_F(Tls, PrefersForDevicesWhatASmallProcessorIsGoodAt) {
    make("a");
    const auto server = context("a.pem", "a.key");
    ASSERT_TRUE(server);
    prefer_ciphers_of_small_processors(*server);
    EXPECT_EQ(agreed(server, TLS1_3_VERSION), "TLSv1.3 TLS_CHACHA20_POLY1305_SHA256");
    EXPECT_EQ(agreed(server, TLS1_2_VERSION), "TLSv1.2 ECDHE-ECDSA-CHACHA20-POLY1305");
}

} // namespace
} // namespace relay
