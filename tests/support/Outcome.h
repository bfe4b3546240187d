#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include <ZembraPlatform/AFHTTPSessionManager.h>

namespace zembra::test {

/// What became of one request, seen by a test.
struct Outcome {
    int callbacks = 0;
    Value object;
    NSErrorPtr error;

    [[nodiscard]] bool isSuccess() const noexcept { return callbacks == 1 && !error; }
    [[nodiscard]] bool isFailure(std::string_view domain, NSInteger code) const {
        return callbacks == 1 && error && error->domain() == domain && error->code() == code;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
    stream << outcome.callbacks << " callbacks, ";
    return outcome.error ? stream << *outcome.error : stream << outcome.object;
}

/// A client that trusts the authority of `TLSServer` and has a timeout of 20 seconds.
std::unique_ptr<AFHTTPSessionManager> clientOf(const std::string& address);

/// Whether clients use connections again, which depends on the libcurl at hand.
bool keepsConnections();

using OutcomePtr = std::shared_ptr<Outcome>;

/// Starts a request; the outcome fills as the main queue is drained.
OutcomePtr startPOST(AFHTTPSessionManager& client, std::string_view path = "token",
                     const Value& parameters = {});

/// Drains the main queue until the request has its outcome (or half a minute has gone by).
const Outcome& await(const OutcomePtr& outcome);

/// Both.
Outcome performPOST(AFHTTPSessionManager& client, std::string_view path = "token",
                    const Value& parameters = {});

}  // namespace zembra::test
