// Requests of the HTTP client and what came of them, for tests; the main queue is drained by the test's
// thread.
#pragma once

#include <memory>
#include <ostream>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>

#include "support/TLSServer.h"

namespace zembra::test {

/// What became of one request, seen by a test.
struct Outcome {
    int callbacks = 0;
    Value object;
    NSErrorPtr error;

    [[nodiscard]] bool isSuccess() const noexcept { return callbacks == 1 && !error; }
    [[nodiscard]] bool isFailure(NSInteger code, std::string_view domain = NSURLErrorDomain) const {
        return callbacks == 1 && error && error->domain() == domain && error->code() == code;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
    stream << outcome.callbacks << " callbacks, ";
    return outcome.error ? stream << *outcome.error : stream << outcome.object;
}

/// A client that trusts the authority of `TLSServer` and has a timeout of 20 seconds.
inline std::unique_ptr<AFHTTPSessionManager> clientOf(const std::string& address) {
    auto client = std::make_unique<AFHTTPSessionManager>(NSURL::URLWithString(address));
    client->addTrustedCertificateAuthority(TLSServer::certificateAuthority());
    client->requestSerializer().setTimeoutInterval(20s);
    return client;
}

using OutcomePtr = std::shared_ptr<Outcome>;

/// Starts a request; the outcome fills as the main queue is drained.
inline OutcomePtr startPOST(AFHTTPSessionManager& client, std::string_view path = "token",
                            const Value& parameters = {}) {
    auto outcome = std::make_shared<Outcome>();
    const auto note = [outcome](auto Outcome::*member) {
        return [=](const auto&, const auto& result) {
            ++outcome->callbacks;
            (*outcome).*member = result;
        };
    };
    client.POST(path, parameters, nullptr, note(&Outcome::object), note(&Outcome::error));
    return outcome;
}

/// Drains the main queue until the request has its outcome (or half a minute has gone by).
inline const Outcome& await(const OutcomePtr& outcome) {
    static_cast<void>(MainQueue::shared().runUntil([&] { return outcome->callbacks > 0; }, 30s));
    return *outcome;
}

/// Both.
inline Outcome performPOST(AFHTTPSessionManager& client, std::string_view path = "token",
                           const Value& parameters = {}) {
    return await(startPOST(client, path, parameters));
}

}  // namespace zembra::test
