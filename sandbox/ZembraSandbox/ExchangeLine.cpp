#include "ExchangeLine.h"

#include <algorithm>
#include <array>
#include <ostream>

#include "Outcomes.h"

namespace zembra::sandbox {
namespace {

constexpr std::string_view kMask = "****";
constexpr std::size_t kLongestValue = 160;

char lowercase(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

bool containsWithoutCase(std::string_view text, std::string_view part) {
    const auto isEqual = [](char left, char right) { return lowercase(left) == lowercase(right); };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), isEqual) != text.end();
}

bool isSecretHeader(std::string_view name) {
    constexpr std::array<std::string_view, 5> kParts{"auth", "cookie", "key", "secret", "token"};
    return std::any_of(kParts.begin(), kParts.end(),
                       [&](std::string_view part) { return containsWithoutCase(name, part); });
}

bool isOpenParameter(std::string_view name, std::string_view value) {
    if (name == "client_id" || name == "signature") return true;
    return name == "refresh_token" && outcomeOf(value, refreshTokenOutcomes()).value == value;
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
    return left.size() == right.size() && containsWithoutCase(left, right);
}

std::string exchangeLine(const Exchange& exchange, std::string_view token) {
    std::string line;
    appendPrintable(line, exchange.method);
    line += ' ';
    const std::size_t query = exchange.target.find('?');
    appendPrintable(line, std::string_view(exchange.target).substr(0, query));
    if (query != std::string::npos) line.append("?").append(kMask);

    const auto appendFields = [&](std::string_view title, std::string_view equals, const Fields& fields,
                                  auto isOpen) {
        line += title;
        std::string_view separator;
        for (const auto& [name, value] : fields) {
            line += separator;
            separator = ", ";
            appendPrintable(line, name);
            line += equals;
            if (isOpen(name, value)) {
                appendPrintable(line, value);
            } else {
                line += kMask;
            }
        }
    };
    appendFields(" | ", ": ", exchange.headers,
                 [](const auto& name, const auto&) { return !isSecretHeader(name); });
    appendFields(" | ", "=", exchange.parameters, isOpenParameter);

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
