#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include <ZembraSandbox/Certificates.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

namespace zembra::sandbox {
namespace {

using namespace std::chrono_literals;
using X509Certificate = std::shared_ptr<X509>;

X509Certificate parsed(const Certificate& certificate) {
    BIO* bio = BIO_new_mem_buf(certificate.pem.data(), static_cast<int>(certificate.pem.size()));
    X509Certificate result(PEM_read_bio_X509(bio, nullptr, nullptr, nullptr), X509_free);
    BIO_free(bio);
    return result;
}

/// OpenSSL's verdict on a server certificate for `host`, with `authority` as the only one trusted.
int verdict(const Certificate& certificate, const Certificate& authority, const std::string& host) {
    const std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
    X509_STORE_add_cert(store.get(), parsed(authority).get());
    const std::shared_ptr<X509_STORE_CTX> context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
    const X509Certificate subject = parsed(certificate);
    X509_STORE_CTX_init(context.get(), store.get(), subject.get(), nullptr);
    X509_STORE_CTX_set_default(context.get(), "ssl_server");
    X509_VERIFY_PARAM* const parameters = X509_STORE_CTX_get0_param(context.get());
    if (X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) != 1) {
        X509_VERIFY_PARAM_set1_host(parameters, host.c_str(), host.size());
    }
    X509_verify_cert(context.get());
    return X509_STORE_CTX_get_error(context.get());
}

TEST(Certificates, AreJudgedByVerifiersAsTheirProfilesSay) {
    const Certificate authority = makeCertificate({.commonName = "Authority", .isAuthority = true});
    const Certificate stranger = makeCertificate({.commonName = "Stranger", .isAuthority = true});
    CertificateProfile profile{.commonName = "Server", .alternativeNames = {"DNS:localhost", "IP:127.0.0.1"}};
    const Certificate server = makeCertificate(profile, &authority);
    EXPECT_EQ(verdict(server, authority, "127.0.0.1"), X509_V_OK);
    EXPECT_EQ(verdict(server, authority, "localhost"), X509_V_OK);
    EXPECT_EQ(verdict(server, authority, "127.0.0.2"), X509_V_ERR_IP_ADDRESS_MISMATCH);
    EXPECT_EQ(verdict(server, authority, "elsewhere.example"), X509_V_ERR_HOSTNAME_MISMATCH);
    EXPECT_EQ(verdict(server, stranger, "localhost"), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
    EXPECT_EQ(verdict(makeCertificate(profile), authority, "localhost"),
              X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
    EXPECT_NE(verdict(makeCertificate(profile, &server), server, "localhost"), X509_V_OK);
    profile.validFrom = -2h;
    profile.validUntil = -1h;
    EXPECT_EQ(verdict(makeCertificate(profile, &authority), authority, "localhost"),
              X509_V_ERR_CERT_HAS_EXPIRED);
    profile.validFrom = 1h;
    profile.validUntil = 2h;
    EXPECT_EQ(verdict(makeCertificate(profile, &authority), authority, "localhost"),
              X509_V_ERR_CERT_NOT_YET_VALID);
}

TEST(Certificates, RefuseWhatCannotBeSaid) {
    EXPECT_THROW((void)makeCertificate({.commonName = "Server", .alternativeNames = {"IP:nowhere"}}),
                 std::runtime_error);
    const Certificate broken{"no certificate", "no key"};
    EXPECT_THROW((void)makeCertificate({.commonName = "Server"}, &broken), std::runtime_error);
}

}  // namespace
}  // namespace zembra::sandbox
