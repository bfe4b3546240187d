// Says in the words of `NSURLErrorDomain` why no answer came: one function of libcurl's result and its
// circumstances.
#include "http/HTTPFailure.h"

#include <curl/curl.h>

namespace zembra {

namespace {

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
        default:
            return networkError(NSURLErrorServerCertificateUntrusted,
                                certificate + " cannot be trusted: " + failure.detail + '.');
    }
}

}  // namespace

NSErrorPtr networkError(NSURLErrorCode code, std::string_view text) {
    return NSError::errorWithDomain(NSURLErrorDomain, code,
                                    Value::dictionary({{NSLocalizedDescriptionKey, text}}));
}

NSErrorPtr errorOf(const HTTPFailure& failure) {
    const std::string& host = failure.host;
    if (failure.fault == HTTPFault::outOfMemory)
        return networkError(NSURLErrorUnknown, "The request to " + host + " failed: out of memory.");
    // libcurl's own text is passed on only where it cannot hold anything of the request.
    const std::string detail = failure.detail.empty() ? "." : " (" + failure.detail + ").";
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
            return networkError(NSURLErrorCannotConnectToHost,
                                "The proxy refused to connect to " + host + '.');
        case CURLE_COULDNT_CONNECT:
            return networkError(NSURLErrorCannotConnectToHost, "Cannot connect to " + host + detail);
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            return networkError(NSURLErrorNetworkConnectionLost,
                                "The connection to " + host + " was lost" + detail);
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_ISSUER_ERROR:
            return certificateError(failure);
        case CURLE_SSL_CERTPROBLEM:
            return networkError(NSURLErrorClientCertificateRejected,
                                host + " asks for a client certificate" + detail);
        case CURLE_SSL_CACERT_BADFILE:
            return networkError(
                NSURLErrorSecureConnectionFailed,
                "The trusted certificate authorities cannot be read from " + failure.trustOrigin + detail);
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CIPHER:
        case CURLE_USE_SSL_FAILED:
            return networkError(NSURLErrorSecureConnectionFailed,
                                "No secure connection to " + host + " could be made" + detail);
        case CURLE_BAD_CONTENT_ENCODING:
            return networkError(NSURLErrorCannotDecodeContentData,
                                "The compressed answer of " + host + " cannot be read.");
        case CURLE_WRITE_ERROR:
        case CURLE_OUT_OF_MEMORY:  // which is also how libcurl puts a single header line that is too long
        case CURLE_FILESIZE_EXCEEDED:
            if (failure.fault == HTTPFault::answerTooLarge || failure.phase == HTTPPhase::receiving)
                return networkError(NSURLErrorDataLengthExceedsMaximum,
                                    "The answer of " + host + " is too large.");
            break;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_UNSUPPORTED_PROTOCOL:  // an answer without a status line: only https is ever asked for
        case CURLE_HTTP2:
            return networkError(NSURLErrorBadServerResponse, "The answer of " + host + " is not valid HTTP.");
        default:
            break;
    }
    return networkError(NSURLErrorUnknown,
                        "The request to " + host +
                            " failed: " + ::curl_easy_strerror(static_cast<CURLcode>(failure.result)) + '.');
}

}  // namespace zembra
