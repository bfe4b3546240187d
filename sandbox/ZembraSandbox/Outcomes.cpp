// The table of outcomes that can be rehearsed; any thread.

#include "Outcomes.h"

#include <algorithm>
#include <array>

#include "SandboxServer.h"

namespace zembra::sandbox {
namespace {

/// The outcomes that both exchanges know.
constexpr std::array kCommonOutcomes{
    Outcome{.value = "sandbox.unauthorized",
            .effect = "unauthorized",
            .status = 401,
            .body = R"({"error": "unauthorized", "message": "Rehearsed: not authorized."})"},
    Outcome{.value = "sandbox.refused",
            .effect = "refused",
            .status = 403,
            .body = R"({"error": "forbidden", "message": "Rehearsed: not allowed."})"},
    Outcome{.value = "sandbox.broken",
            .effect = "server error",
            .status = 500,
            .body = R"({"error": "server_error", "message": "Rehearsed: a failure of the server."})"},
    Outcome{.value = "sandbox.silent", .effect = "no answer, ever", .status = 0, .delivery = Delivery::never},
    Outcome{.value = "sandbox.slow", .effect = "goes well after 1.5 s", .delivery = Delivery::late},
    Outcome{.value = "sandbox.empty-body", .effect = "an empty body", .body = ""},
    Outcome{.value = "sandbox.array", .effect = "a JSON array", .body = "[%o]"},
    Outcome{.value = "sandbox.string", .effect = "a JSON string", .body = R"("token")"},
    Outcome{.value = "sandbox.number", .effect = "a JSON number", .body = "42"},
    Outcome{
        .value = "sandbox.not-json", .effect = "a body that is not JSON", .body = "<html>Not JSON</html>"},
    Outcome{.value = "sandbox.wrong-content-type",
            .effect = "the right body labelled text/plain",
            .contentType = "text/plain"},
    Outcome{.value = "sandbox.truncated",
            .effect = "half of the body, then the connection ends",
            .delivery = Delivery::truncated},
    Outcome{.value = "sandbox.reset",
            .effect = "the connection is reset",
            .status = 0,
            .delivery = Delivery::reset},
};

template <std::size_t count>
constexpr auto withCommonOutcomes(const Outcome (&own)[count]) {
    std::array<Outcome, count + kCommonOutcomes.size()> all;
    std::copy(kCommonOutcomes.begin(), kCommonOutcomes.end(), std::copy(own, own + count, all.begin()));
    return all;
}

constexpr auto kClientIdentifierOutcomes = withCommonOutcomes({
    {.value = "sandbox.demo", .effect = "registered: a new app token, the account identifier"},
    {.value = "sandbox.forgotten",
     .effect = "registered, but a refresh with this app token is unauthorized",
     .isTokenHonoured = false},
    {.value = "sandbox.no-token", .effect = "no token", .body = R"({"account_id": "%a"})"},
    {.value = "sandbox.no-account-id", .effect = "no account identifier", .body = R"({"token": "%t"})"},
    {.value = "sandbox.null-token",
     .effect = "a null token",
     .body = R"({"token": null, "account_id": "%a"})"},
    {.value = "sandbox.empty-token",
     .effect = "an empty token",
     .body = R"({"token": "", "account_id": "%a"})"},
});

constexpr auto kRefreshTokenOutcomes = withCommonOutcomes({
    {.value = "sandbox.unknown",
     .effect = "unknown to the platform",
     .status = 400,
     .body = R"({"error": "invalid_grant", "message": "The refresh token is unknown."})"},
    {.value = "sandbox.member", .effect = "traded for a new member token"},
    {.value = "sandbox.expired",
     .effect = "expired",
     .status = 401,
     .body = R"({"error": "invalid_grant", "message": "The refresh token has expired."})"},
    {.value = "sandbox.no-token", .effect = "no token", .body = R"({"expires_in": 3600})"},
    {.value = "sandbox.null-token", .effect = "a null token", .body = R"({"token": null})"},
    {.value = "sandbox.empty-token", .effect = "an empty token", .body = R"({"token": ""})"},
});

void appendTable(std::string& text, std::string_view headline, std::span<const Outcome> outcomes) {
    const auto appendRow = [&](std::string_view value, std::string_view status, std::string_view effect) {
        const auto cell = [&](std::string_view content, std::size_t width) {
            text.append("| ").append(content).append(width - std::min(width, content.size()) + 1, ' ');
        };
        cell(value, 36);
        cell(status, 6);
        cell(effect, 62);
        text += "|\n";
    };
    appendRow(headline, "status", "outcome");
    appendRow(std::string(36, '-'), "------", std::string(62, '-'));
    for (const Outcome& outcome : outcomes) {
        const bool isFirst = &outcome == &outcomes.front();
        appendRow((isFirst ? "any other, like `" : "`") + std::string(outcome.value) + "`",
                  outcome.status == 0 ? "none" : std::to_string(outcome.status), outcome.effect);
    }
}

}  // namespace

std::span<const Outcome> clientIdentifierOutcomes() {
    return kClientIdentifierOutcomes;
}
std::span<const Outcome> refreshTokenOutcomes() {
    return kRefreshTokenOutcomes;
}

const Outcome& outcomeOf(std::string_view value, std::span<const Outcome> outcomes) {
    const auto found = std::find_if(outcomes.begin(), outcomes.end(),
                                    [&](const Outcome& outcome) { return outcome.value == value; });
    return found != outcomes.end() ? *found : outcomes.front();
}

std::string SandboxServer::outcomeTables() {
    std::string text;
    appendTable(text, "`client_id` of app/token", clientIdentifierOutcomes());
    text += '\n';
    appendTable(text, "`refresh_token` of app/members/token", refreshTokenOutcomes());
    return text;
}

}  // namespace zembra::sandbox
