#pragma once

// The outcomes that can be rehearsed, for the platform's API and for tests; any thread.

#include <span>
#include <string>
#include <string_view>

namespace zembra::sandbox {

/// How an answer reaches the client.
enum class Delivery {
    whole,
    late,       ///< Just before the SDK's timeout.
    never,      ///< Nothing is sent; the connection stays open until the client closes it.
    truncated,  ///< Half of the body, then the end of the connection.
    reset,      ///< The connection is reset at once.
};

inline constexpr std::string_view kJSONContentType = "application/json";

/// What the server makes of one value of the parameter that decides.
struct Outcome {
    std::string_view value;
    std::string_view effect;  ///< For people.
    int status = 200;

    /// In a body %t stands for a new token, %a for the account identifier and %o for the body of an exchange
    /// that goes well.
    std::string_view body = "%o";
    std::string_view contentType = kJSONContentType;
    Delivery delivery = Delivery::whole;

    /// Whether the token that is handed out counts afterwards.
    bool isTokenHonoured = true;
};

/// The outcomes of app/token by client identifier, and of app/members/token by refresh token. The first of
/// each is that of all other values, too; the second of the latter is that of a valid refresh token.
[[nodiscard]] std::span<const Outcome> clientIdentifierOutcomes();
[[nodiscard]] std::span<const Outcome> refreshTokenOutcomes();

/// The outcome of `value`.
[[nodiscard]] const Outcome& outcomeOf(std::string_view value, std::span<const Outcome> outcomes);

}  // namespace zembra::sandbox
