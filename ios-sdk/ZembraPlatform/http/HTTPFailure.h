#pragma once

// Says in the words of `NSURLErrorDomain` why no answer came; used by the HTTP client's other parts, on any
// thread.

#include <string>
#include <string_view>

#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/NSURL.h>

namespace zembra {

/// An error of the network layer with a text for people.
[[nodiscard]] NSErrorPtr networkError(NSURLErrorCode code, std::string_view text);

/// How far an exchange had come when it failed.
enum class HTTPPhase { resolving, connecting, securing, waiting, receiving };

/// What the transfer itself found wrong, whatever libcurl's result is.
enum class HTTPFault { none, outOfMemory, answerTooLarge, answerNotHTTP, headerCut };

/// All that the error of a failed exchange is made of.
struct HTTPFailure {
    int result = 0;  ///< libcurl's `CURLcode`; the numbers mean the same in all versions.
    HTTPFault fault = HTTPFault::none;
    HTTPPhase phase = HTTPPhase::resolving;
    std::string host = {};         ///< Where the request went, with the port where the URL names one.
    std::string detail = {};       ///< libcurl's own text; may be empty, may hold a proxy's password.
    std::string trustOrigin = {};  ///< Where the trusted authorities come from.
    long verifyResult = 0;         ///< The TLS library's verdict on the server's certificate.
    long systemError = 0;          ///< `errno` of a connection that could not be made.
    long proxyStatus = 0;          ///< The proxy's answer to a request for a tunnel; 0 where there was none.
};

/// The one place that gives libcurl's results their meaning.
[[nodiscard]] NSErrorPtr errorOf(const HTTPFailure& failure);

}  // namespace zembra
