#pragma once

// Requests of the HTTP client and what came of them, for tests; the main queue is drained by the test's
// thread.

#include <memory>
#include <ostream>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>

#include "support/TLSServer.h"

namespace zembra::test {

/// What became of one request, seen by a test.
struct POSTResult {
    int callbacks = 0;
    Value object;
    NSErrorPtr error;

    [[nodiscard]] bool isSuccess() const noexcept { return callbacks == 1 && !error; }
    [[nodiscard]] bool isFailure(NSInteger code, std::string_view domain = NSURLErrorDomain) const {
        return callbacks == 1 && error && error->domain() == domain && error->code() == code;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const POSTResult& result) {
    stream << result.callbacks << " callbacks, ";
    return result.error ? stream << *result.error : stream << result.object;
}

/// A client that trusts the authority of `TLSServer` and has a timeout of 20 seconds.
inline std::unique_ptr<AFHTTPSessionManager> clientOf(const std::string& address) {
    auto client = std::make_unique<AFHTTPSessionManager>(NSURL::URLWithString(address));
    client->addTrustedCertificateAuthority(TLSServer::certificateAuthority());
    client->requestSerializer().setTimeoutInterval(20s);
    return client;
}

using POSTResultPtr = std::shared_ptr<POSTResult>;

/// Starts a request; the result fills as the main queue is drained.
inline POSTResultPtr startPOST(AFHTTPSessionManager& client, std::string_view path = "token",
                               const Value& parameters = {}) {
    auto result = std::make_shared<POSTResult>();
    const auto note = [result](auto POSTResult::*member) {
        return [=](const auto&, const auto& told) {
            ++result->callbacks;
            (*result).*member = told;
        };
    };
    client.POST(path, parameters, nullptr, note(&POSTResult::object), note(&POSTResult::error));
    return result;
}

/// Drains the main queue until the request has its result (or half a minute has gone by).
inline const POSTResult& await(const POSTResultPtr& result) {
    static_cast<void>(MainQueue::shared().runUntil([&] { return result->callbacks > 0; }, 30s));
    return *result;
}

/// Both.
inline POSTResult performPOST(AFHTTPSessionManager& client, std::string_view path = "token",
                              const Value& parameters = {}) {
    return await(startPOST(client, path, parameters));
}

}  // namespace zembra::test
