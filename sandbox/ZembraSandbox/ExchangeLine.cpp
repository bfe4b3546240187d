// How an exchange is printed, without anything that may be a secret; any thread.

#include "ExchangeLine.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <utility>

#include "PlatformAPI.h"

namespace zembra::sandbox {
namespace {

constexpr std::string_view kMask = "****";
constexpr std::size_t kLongestValue = 160;

char lowercase(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

bool isKnownMethod(std::string_view method) {
    constexpr std::array<std::string_view, 7> kMethods{"GET",   "HEAD",   "POST",   "PUT",
                                                       "PATCH", "DELETE", "OPTIONS"};
    return std::find(kMethods.begin(), kMethods.end(), method) != kMethods.end();
}

bool isKnownPath(std::string_view path) {
    return path == kAppTokenPath || path == kMemberTokenPath;
}

/// Whether the server is meant: "127.0.0.1" or "localhost", with a port or without.
bool isOwnHost(std::string_view host) {
    const std::string_view name = host.substr(0, host.find(':')), port = host.substr(name.size());
    return (name == "127.0.0.1" || name == "localhost") &&
           port.find_first_not_of(":0123456789") == port.npos && port.size() <= 6;
}

bool isOpenHeader(std::string_view name, std::string_view value) {
    constexpr std::array<std::string_view, 8> kOpen{"Accept",         "Accept-Encoding", "Connection",
                                                    "Content-Length", "Content-Type",    "Transfer-Encoding",
                                                    "User-Agent",     "X-SDK-Version"};
    return (isEqualWithoutCase(name, "Host") && isOwnHost(value)) ||
           std::any_of(kOpen.begin(), kOpen.end(),
                       [&](std::string_view open) { return isEqualWithoutCase(name, open); });
}

bool isKnownParameter(std::string_view name) {
    return name == "client_id" || name == "signature" || name == "refresh_token";
}

bool isOpenParameter(std::string_view name, std::string_view value) {
    if (name == "refresh_token") return outcomeOf(value, refreshTokenOutcomes()).value == value;
    return isKnownParameter(name);
}

void appendPrintable(std::string& line, std::string_view text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    for (const char character : text.substr(0, kLongestValue)) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= ' ' && byte <= '~') {
            line += character;
        } else {
            line.append("\\x") += kDigits[byte >> 4];
            line += kDigits[byte & 15];
        }
    }
    if (text.size() > kLongestValue) line += "... (" + std::to_string(text.size()) + " bytes)";
}

std::optional<std::string> firstValue(const Fields& fields, auto isWanted) {
    const auto found =
        std::find_if(fields.begin(), fields.end(), [&](const auto& field) { return isWanted(field.first); });
    if (found == fields.end()) return std::nullopt;
    return found->second;
}

}  // namespace

bool isEqualWithoutCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char one, char other) { return lowercase(one) == lowercase(other); });
}

std::string exchangeLine(const Exchange& exchange, std::string_view token) {
    std::string line;
    const auto append = [&line](std::string_view text, bool isOpen) {
        if (isOpen)
            appendPrintable(line, text);
        else
            line += kMask;
    };
    const std::string_view target = exchange.target, path = target.substr(0, target.find('?'));
    append(exchange.method, isKnownMethod(exchange.method));
    line += ' ';
    append(path, isKnownPath(path));
    if (path.size() != target.size()) line.append("?").append(kMask);

    std::string_view separator = " | ";
    for (const auto& [name, value] : exchange.headers) {
        line += std::exchange(separator, ", ");
        append(name, true);
        line += ": ";
        append(value, isOpenHeader(name, value));
    }
    separator = " | ";
    for (const auto& [name, value] : exchange.parameters) {
        line += std::exchange(separator, ", ");
        append(name, isKnownParameter(name));
        line += '=';
        append(value, isOpenParameter(name, value));
    }

    if (exchange.status == 0) return line + " | no answer";
    line += " | " + std::to_string(exchange.status) + ' ';
    std::string answer = exchange.answer;
    if (const auto at = answer.find(token); !token.empty() && at != std::string::npos) {
        answer.replace(at, token.size(), kMask);
    }
    appendPrintable(line, answer);
    return line;
}

std::optional<std::string> Exchange::header(std::string_view name) const {
    return firstValue(headers, [&](std::string_view other) { return isEqualWithoutCase(name, other); });
}

std::optional<std::string> Exchange::parameter(std::string_view name) const {
    return firstValue(parameters, [&](std::string_view other) { return name == other; });
}

std::ostream& operator<<(std::ostream& stream, const Exchange& exchange) {
    return stream << exchange.line;
}

}  // namespace zembra::sandbox
