#pragma once

// Certificates for the sandbox and for tests' servers; any thread.

#include <chrono>
#include <string>
#include <vector>

struct ssl_ctx_st;

namespace zembra::sandbox {

/// A certificate and its private key, both PEM text.
struct Certificate {
    std::string pem;
    std::string privateKey;
};

/// What a certificate is to say.
struct CertificateProfile {
    std::string commonName = {};

    /// The subject's alternative names in OpenSSL's notation: "DNS:localhost", "IP:127.0.0.1".
    std::vector<std::string> alternativeNames = {};

    bool isAuthority = false;

    /// The time of validity, counted from now; both before now make an expired one, both after now one that
    /// is not yet valid.
    std::chrono::seconds validFrom = -std::chrono::hours(1);
    std::chrono::seconds validUntil = std::chrono::hours(24 * 30);
};

/// Makes a key (EC P-256) and a certificate for it, signed by `issuer`, or by itself where there is none.
/// Throws `std::runtime_error` where OpenSSL refuses. Internal to the sandbox and the tests; any thread.
[[nodiscard]] Certificate makeCertificate(const CertificateProfile& profile,
                                          const Certificate* issuer = nullptr);

/// Makes the connections of an OpenSSL context present `certificate`. Throws likewise.
void useCertificate(ssl_ctx_st& context, const Certificate& certificate);

}  // namespace zembra::sandbox
