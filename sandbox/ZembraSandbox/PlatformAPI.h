#pragma once

// What the platform answers, for the server; any thread.

#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "Outcomes.h"
#include "SandboxServer.h"

namespace zembra::sandbox {

inline constexpr std::string_view kAppTokenPath = "/api/v1/app/token";
inline constexpr std::string_view kMemberTokenPath = "/api/v1/app/members/token";

/// The platform's answer to one request.
struct Answer {
    int status = 200;  ///< 0 for none.
    Fields headers{};  ///< Beside the content type.
    std::string contentType{kJSONContentType};
    std::string body{};
    Delivery delivery = Delivery::whole;
    std::string token{};  ///< The one that the body hands out, if any.
};

/// What the platform's API makes of requests: the judgement, without the network. Any thread.
class PlatformAPI {
public:
    /// Judges a request by its method, target, headers and `body`, and fills in its parameters.
    [[nodiscard]] Answer answer(Exchange& request, const std::string& body);

    void acceptRefreshToken(std::string token);

private:
    bool isAuthorized(const Exchange& request) const;

    mutable std::mutex mutex_;
    std::set<std::string, std::less<>> appTokens_;
    std::set<std::string, std::less<>> refreshTokens_;
};

/// A refusal with a JSON body.
[[nodiscard]] Answer refusal(int status, std::string_view error, std::string_view message);

}  // namespace zembra::sandbox
