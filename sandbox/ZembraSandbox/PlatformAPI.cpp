// The platform's judgement on requests; any thread.

#include "PlatformAPI.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "ExchangeLine.h"
#include "FormBody.h"

namespace zembra::sandbox {
namespace {

constexpr std::string_view kFormContentType = "application/x-www-form-urlencoded";
constexpr std::string_view kBearer = "Bearer ";

struct Endpoint {
    std::string_view path;
    std::span<const std::string_view> parameters;  ///< The first decides on the outcome.
    bool needsAuthorization;
};
constexpr std::array<std::string_view, 2> kAppTokenParameters{"client_id", "signature"};
constexpr std::array<std::string_view, 1> kMemberTokenParameters{"refresh_token"};
constexpr std::array kEndpoints{Endpoint{kAppTokenPath, kAppTokenParameters, false},
                                Endpoint{kMemberTokenPath, kMemberTokenParameters, true}};

std::string hexadecimal(std::span<const unsigned char> bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string newToken(std::string_view kind) {
    std::array<unsigned char, 24> bytes;
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("There are no random bytes.");
    }
    return std::string(kind) + hexadecimal(bytes);
}

std::string accountIdentifier(std::string_view clientIdentifier) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    EVP_Digest(clientIdentifier.data(), clientIdentifier.size(), digest.data(), nullptr, EVP_sha256(),
               nullptr);
    return "account-" + hexadecimal(std::span(digest).first(8));
}

void substitute(std::string& text, std::string_view placeholder, std::string_view replacement) {
    if (const auto at = text.find(placeholder); at != std::string::npos) {
        text.replace(at, placeholder.size(), replacement);
    }
}

/// What is wrong with the form, or nothing.
std::string formFault(const Endpoint& endpoint, const Fields& form) {
    for (const std::string_view name : endpoint.parameters) {
        const auto count =
            std::count_if(form.begin(), form.end(), [&](const auto& field) { return field.first == name; });
        if (count == 0) return "The parameter " + std::string(name) + " is missing.";
        if (count > 1) return "The parameter " + std::string(name) + " is repeated.";
    }
    if (form.size() > endpoint.parameters.size()) return "There is an unknown parameter.";
    return {};
}

std::vector<std::string_view> headerValues(const Exchange& request, std::string_view name) {
    std::vector<std::string_view> values;
    for (const auto& [key, value] : request.headers) {
        if (isEqualWithoutCase(key, name)) values.push_back(value);
    }
    return values;
}

bool isForm(const Exchange& request) {
    const auto types = headerValues(request, "Content-Type");
    if (types.size() != 1) return false;
    std::string_view type = types.front().substr(0, types.front().find(';'));
    while (type.ends_with(' '))
        type.remove_suffix(1);
    return isEqualWithoutCase(type, kFormContentType);
}

}  // namespace

Answer refusal(int status, std::string_view error, std::string_view message) {
    const nlohmann::ordered_json body{{"error", error}, {"message", message}};
    return {.status = status, .body = body.dump()};
}

Answer PlatformAPI::answer(Exchange& request, const std::string& body) {
    auto form = isForm(request) ? decodedForm(body) : std::nullopt;
    const bool isWellFormed = form.has_value();
    if (isWellFormed) request.parameters = *std::move(form);

    const std::string_view path = std::string_view(request.target).substr(0, request.target.find('?'));
    const auto endpoint = std::find_if(kEndpoints.begin(), kEndpoints.end(),
                                       [&](const Endpoint& candidate) { return candidate.path == path; });
    if (endpoint == kEndpoints.end()) return refusal(404, "not_found", "There is nothing at this path.");
    if (request.method != "POST") {
        Answer answer = refusal(405, "method_not_allowed", "This path takes POST only.");
        answer.headers.emplace_back("Allow", "POST");
        return answer;
    }
    if (endpoint->needsAuthorization && !isAuthorized(request)) {
        Answer answer =
            refusal(401, "unauthorized",
                    "The request needs one Authorization header: Bearer and an app token in force.");
        answer.headers.emplace_back("WWW-Authenticate", "Bearer");
        return answer;
    }
    if (path.size() != request.target.size()) {
        return refusal(400, "invalid_request", "Parameters belong in the body, not in a query.");
    }
    if (!isForm(request)) {
        return refusal(400, "invalid_request",
                       "The content type must be " + std::string(kFormContentType) + ".");
    }
    if (!isWellFormed) return refusal(400, "invalid_request", "The body is not a well-formed form.");
    if (const std::string fault = formFault(*endpoint, request.parameters); !fault.empty()) {
        return refusal(400, "invalid_request", fault);
    }

    const std::string deciding = *request.parameter(endpoint->parameters.front());
    const bool isMember = endpoint->needsAuthorization;
    if (!isMember && deciding.empty())
        return refusal(400, "invalid_request", "The parameter client_id is empty.");

    const std::lock_guard lock(mutex_);
    const Outcome& outcome = !isMember ? outcomeOf(deciding, clientIdentifierOutcomes())
                             : refreshTokens_.contains(deciding)
                                 ? refreshTokenOutcomes()[1]
                                 : outcomeOf(deciding, refreshTokenOutcomes());
    Answer answer{.status = outcome.status,
                  .contentType = std::string(outcome.contentType),
                  .delivery = outcome.delivery};
    if (outcome.status == 0) return answer;

    answer.body = outcome.body;
    substitute(answer.body, "%o", isMember ? R"({"token": "%t"})" : R"({"token": "%t", "account_id": "%a"})");
    substitute(answer.body, "%a", accountIdentifier(deciding));
    if (answer.body.find("%t") != std::string::npos) {
        answer.token = newToken(isMember ? "member-" : "app-");
        substitute(answer.body, "%t", answer.token);
        if (!isMember && outcome.isTokenHonoured) appTokens_.insert(answer.token);
    }
    return answer;
}

void PlatformAPI::acceptRefreshToken(std::string token) {
    const std::lock_guard lock(mutex_);
    refreshTokens_.insert(std::move(token));
}

bool PlatformAPI::isAuthorized(const Exchange& request) const {
    const auto values = headerValues(request, "Authorization");
    if (values.size() != 1 || !values.front().starts_with(kBearer)) return false;
    const std::lock_guard lock(mutex_);
    return appTokens_.contains(values.front().substr(kBearer.size()));
}

}  // namespace zembra::sandbox
