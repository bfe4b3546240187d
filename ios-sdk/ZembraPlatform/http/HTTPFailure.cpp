// Says in the words of `NSURLErrorDomain` why no answer came: one function of libcurl's result and its
// circumstances.

#include "http/HTTPFailure.h"

#include <system_error>

#include <curl/curl.h>

namespace zembra {

namespace {

/// libcurl's own text, for results where it cannot hold anything of the request or of a proxy's URL.
std::string detailOf(const HTTPFailure& failure) {
    return failure.detail.empty() ? "." : " (" + failure.detail + ").";
}

NSErrorPtr tooLargeError(const HTTPFailure& failure) {
    return networkError(NSURLErrorDataLengthExceedsMaximum,
                        "The answer of " + failure.host + " is too large.");
}

NSErrorPtr notHTTPError(const HTTPFailure& failure) {
    return networkError(NSURLErrorBadServerResponse, "The answer of " + failure.host + " is not valid HTTP.");
}

NSErrorPtr undecodableError(const HTTPFailure& failure) {
    return networkError(NSURLErrorCannotDecodeContentData,
                        "The compressed answer of " + failure.host + " cannot be read.");
}

NSErrorPtr lostError(const HTTPFailure& failure) {
    return networkError(NSURLErrorNetworkConnectionLost,
                        "The connection to " + failure.host + " was lost" + detailOf(failure));
}

NSErrorPtr proxyError(const HTTPFailure& failure) {
    const std::string proxy = "The proxy on the way to " + failure.host;
    constexpr long kAuthenticationRequired = 407;
    if (failure.proxyStatus == kAuthenticationRequired)
        return networkError(NSURLErrorCannotConnectToHost, proxy + " asks for a name and a password.");
    const std::string status =
        failure.proxyStatus == 0 ? "" : " (status " + std::to_string(failure.proxyStatus) + ')';
    return networkError(NSURLErrorCannotConnectToHost, proxy + " refused to connect" + status + '.');
}

NSErrorPtr timeoutError(const HTTPFailure& failure) {
    const char* phase = "looking up the host";
    switch (failure.phase) {
        case HTTPPhase::resolving:
            break;
        case HTTPPhase::connecting:
            phase = "connecting";
            break;
        case HTTPPhase::securing:
            phase = "negotiating a secure connection";
            break;
        case HTTPPhase::waiting:
            phase = "sending or waiting for the answer";
            break;
        case HTTPPhase::receiving:
            phase = "receiving the answer";
            break;
    }
    return networkError(NSURLErrorTimedOut,
                        "The request to " + failure.host + " timed out while " + phase + '.');
}

/// What was wrong with the server's certificate. The numbers are OpenSSL's.
NSErrorPtr certificateError(const HTTPFailure& failure) {
    enum : long {
        kNoFault = 0,
        kNotJudged = 1,
        kNotYetValid = 9,
        kExpired = 10,
        kSelfSigned = 18,
        kSelfSignedRoot = 19,
        kNoIssuer = 20,
        kNoChain = 21
    };
    const std::string certificate = "The certificate of " + failure.host;
    switch (failure.verifyResult) {
        case kNotYetValid:
            return networkError(NSURLErrorServerCertificateNotYetValid, certificate + " is not yet valid.");
        case kExpired:
            return networkError(NSURLErrorServerCertificateHasBadDate, certificate + " has expired.");
        case kSelfSigned:
            return networkError(NSURLErrorServerCertificateUntrusted,
                                certificate + " is self-signed and not trusted.");
        case kSelfSignedRoot:
        case kNoIssuer:
        case kNoChain:
            return networkError(NSURLErrorServerCertificateHasUnknownRoot,
                                certificate + " was issued by an unknown authority (trusted are those in " +
                                    failure.trustOrigin + ").");
        case kNoFault:
        case kNotJudged:  // libcurl looks at the name before it asks for the verdict
            return networkError(NSURLErrorServerCertificateUntrusted,
                                certificate + " was made for another host.");
        default:
            return networkError(NSURLErrorServerCertificateUntrusted,
                                certificate + " cannot be trusted" + detailOf(failure));
    }
}

/// The failure of what was received, or was not; libcurl puts faults of an answer's form in the same words as
/// those of the connection.
NSErrorPtr receivingError(const HTTPFailure& failure) {
    // 7.88: "Malformed encoding found in chunked-encoding"; 8.14 also: "invalid chunk size:
    // 'ffffffffffffffff'".
    if (failure.detail.find("chunk") != std::string::npos) return notHTTPError(failure);
    return lostError(failure);
}

}  // namespace

NSErrorPtr networkError(NSURLErrorCode code, std::string_view text) {
    return NSError::errorWithDomain(NSURLErrorDomain, code,
                                    Value::dictionary({{NSLocalizedDescriptionKey, text}}));
}

NSErrorPtr errorOf(const HTTPFailure& failure) {
    const std::string& host = failure.host;
    switch (failure.fault) {
        case HTTPFault::none:
            break;
        case HTTPFault::outOfMemory:
            return networkError(NSURLErrorUnknown, "The request to " + host + " failed: out of memory.");
        case HTTPFault::answerTooLarge:
            return tooLargeError(failure);
        case HTTPFault::answerNotHTTP:
            return notHTTPError(failure);
        case HTTPFault::headerCut:
            return lostError(failure);
    }
    const bool isTunnelOpen = failure.proxyStatus >= 200 && failure.proxyStatus <= 299;
    if (failure.proxyStatus != 0 && !isTunnelOpen && failure.result != CURLE_OPERATION_TIMEDOUT)
        return proxyError(failure);

    constexpr int kTooLarge = 100;  // CURLE_TOO_LARGE, from libcurl 8.6 on
    const bool isReceiving = failure.phase == HTTPPhase::receiving;
    switch (failure.result) {
        case CURLE_OPERATION_TIMEDOUT:
            return timeoutError(failure);
        case CURLE_URL_MALFORMAT:
        case CURLE_LOGIN_DENIED:
            return networkError(NSURLErrorBadURL, "The request was not sent: its URL is not valid.");
        case CURLE_COULDNT_RESOLVE_HOST:
            return networkError(NSURLErrorCannotFindHost, "The host " + host + " cannot be found.");
        case CURLE_COULDNT_RESOLVE_PROXY:
            return networkError(NSURLErrorCannotFindHost,
                                "The proxy on the way to " + host + " cannot be found.");
        case CURLE_PROXY:
            return proxyError(failure);
        case CURLE_COULDNT_CONNECT: {
            std::string text = "Cannot connect to " + host;
            if (failure.systemError != 0)
                text += ": " + std::generic_category().message(static_cast<int>(failure.systemError));
            return networkError(NSURLErrorCannotConnectToHost, text + '.');
        }
        case CURLE_RECV_ERROR:
            return receivingError(failure);
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_SEND_ERROR:
        case CURLE_SEND_FAIL_REWIND:
            return lostError(failure);
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_ISSUER_ERROR:
            return certificateError(failure);
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CLIENTCERT:
            return networkError(NSURLErrorClientCertificateRejected,
                                host + " asks for a client certificate" + detailOf(failure));
        case CURLE_SSL_CACERT_BADFILE:
            return networkError(NSURLErrorSecureConnectionFailed,
                                "The trusted certificate authorities cannot be read from " +
                                    failure.trustOrigin + detailOf(failure));
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CIPHER:
        case CURLE_USE_SSL_FAILED:
            return networkError(NSURLErrorSecureConnectionFailed,
                                "No secure connection to " + host + " could be made" + detailOf(failure));
        case CURLE_BAD_CONTENT_ENCODING:
            // 8.14: "Unsolicited Transfer-Encoding (gzip) found"
            if (failure.detail.find("Transfer-Encoding") != std::string::npos) return notHTTPError(failure);
            return undecodableError(failure);
        case CURLE_WRITE_ERROR:  // of libcurl's decoder: the transfer's own refusals have a fault
            return undecodableError(failure);
        case CURLE_OUT_OF_MEMORY:  // 7.88 says so of a header line that is too long
            if (isReceiving) return tooLargeError(failure);
            break;
        case CURLE_FILESIZE_EXCEEDED:
        case kTooLarge:
            return tooLargeError(failure);
        case CURLE_BAD_FUNCTION_ARGUMENT:  // of a trailer that is no field
            if (isReceiving) return notHTTPError(failure);
            break;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_UNSUPPORTED_PROTOCOL:  // an answer without a status line: only https is ever asked for
        case CURLE_HTTP2:
            return notHTTPError(failure);
        default:
            break;
    }
    return networkError(NSURLErrorUnknown,
                        "The request to " + host +
                            " failed: " + ::curl_easy_strerror(static_cast<CURLcode>(failure.result)) + '.');
}

}  // namespace zembra
