// Certificates, over OpenSSL; any thread.

#include "Certificates.h"

#include <memory>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <utility>

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace zembra::sandbox {
namespace {

template <auto function>
struct FreeWith {
    template <typename T>
    void operator()(T* object) const {
        function(object);
    }
};
using Bio = std::unique_ptr<BIO, FreeWith<BIO_free>>;
using Key = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using X509Certificate = std::unique_ptr<X509, FreeWith<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, FreeWith<X509_EXTENSION_free>>;

void require(bool done, std::string_view what) {
    if (done) return;
    char reason[256];
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    ERR_clear_error();
    throw std::runtime_error("Cannot make or use a certificate: " + std::string(what) + ": " + reason);
}

/// The PEM text that `write` puts into a memory buffer.
template <typename Write>
std::string pemText(Write write) {
    const Bio bio(BIO_new(BIO_s_mem()));
    require(bio != nullptr && write(bio.get()) == 1, "PEM text");
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}

Bio readable(const std::string& text) {
    Bio bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    require(bio != nullptr, "PEM text");
    return bio;
}

std::pair<X509Certificate, Key> read(const Certificate& certificate) {
    X509Certificate x509(PEM_read_bio_X509(readable(certificate.pem).get(), nullptr, nullptr, nullptr));
    require(x509 != nullptr, "PEM certificate");
    Key key(PEM_read_bio_PrivateKey(readable(certificate.privateKey).get(), nullptr, nullptr, nullptr));
    require(key != nullptr, "PEM key");
    return {std::move(x509), std::move(key)};
}

void addExtension(X509* certificate, X509V3_CTX* context, int kind, const std::string& value) {
    const Extension extension(X509V3_EXT_conf_nid(nullptr, context, kind, value.c_str()));
    require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, value);
}

}  // namespace

Certificate makeCertificate(const CertificateProfile& profile, const Certificate* issuer) {
    const Key key(EVP_EC_gen("P-256"));
    require(key != nullptr, "key");

    X509Certificate issuerCertificate;
    Key issuerKey;
    if (issuer != nullptr) std::tie(issuerCertificate, issuerKey) = read(*issuer);

    const X509Certificate certificate(X509_new());
    require(certificate != nullptr, "certificate");
    X509* const subject = certificate.get();
    X509* const signer = issuer != nullptr ? issuerCertificate.get() : subject;

    std::uint64_t serialNumber = 0;
    require(RAND_bytes(reinterpret_cast<unsigned char*>(&serialNumber), sizeof serialNumber) == 1 &&
                ASN1_INTEGER_set_uint64(X509_get_serialNumber(subject), serialNumber) == 1 &&
                X509_set_version(subject, X509_VERSION_3) == 1 && X509_set_pubkey(subject, key.get()) == 1 &&
                X509_gmtime_adj(X509_getm_notBefore(subject), static_cast<long>(profile.validFrom.count())) !=
                    nullptr &&
                X509_gmtime_adj(X509_getm_notAfter(subject), static_cast<long>(profile.validUntil.count())) !=
                    nullptr,
            "fields");
    require(X509_NAME_add_entry_by_txt(X509_get_subject_name(subject), "CN", MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(profile.commonName.data()),
                                       static_cast<int>(profile.commonName.size()), -1, 0) == 1 &&
                X509_set_issuer_name(subject, X509_get_subject_name(signer)) == 1,
            "name");

    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, signer, subject, nullptr, nullptr, 0);
    if (profile.isAuthority) {
        addExtension(subject, &context, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(subject, &context, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        addExtension(subject, &context, NID_basic_constraints, "critical,CA:FALSE");
        addExtension(subject, &context, NID_key_usage, "critical,digitalSignature");
        addExtension(subject, &context, NID_ext_key_usage, "serverAuth");
    }
    addExtension(subject, &context, NID_subject_key_identifier, "hash");
    addExtension(subject, &context, NID_authority_key_identifier, "keyid");
    std::string names;
    for (const std::string& name : profile.alternativeNames) {
        names += (names.empty() ? "" : ",") + name;
    }
    if (!names.empty()) addExtension(subject, &context, NID_subject_alt_name, names);

    require(X509_sign(subject, issuer != nullptr ? issuerKey.get() : key.get(), EVP_sha256()) > 0,
            "signature");
    return {pemText([&](BIO* bio) { return PEM_write_bio_X509(bio, subject); }), pemText([&](BIO* bio) {
                return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
            })};
}

void useCertificate(SSL_CTX& context, const Certificate& certificate) {
    const auto [x509, key] = read(certificate);
    require(SSL_CTX_use_certificate(&context, x509.get()) == 1 &&
                SSL_CTX_use_PrivateKey(&context, key.get()) == 1,
            "TLS context");
}

}  // namespace zembra::sandbox
