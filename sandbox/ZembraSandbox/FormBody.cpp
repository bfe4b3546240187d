// A strict decoder of form bodies, written independently of the SDK's encoder; any thread.

#include "FormBody.h"

#include <algorithm>
#include <utility>

namespace zembra::sandbox {
namespace {

std::optional<unsigned> hexDigit(char character) {
    if (character >= '0' && character <= '9') return static_cast<unsigned>(character - '0');
    if (character >= 'A' && character <= 'F') return static_cast<unsigned>(character - 'A' + 10);
    if (character >= 'a' && character <= 'f') return static_cast<unsigned>(character - 'a' + 10);
    return std::nullopt;
}

std::optional<std::string> decoded(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            if (text.size() - i < 3) return std::nullopt;
            const auto high = hexDigit(text[i + 1]);
            const auto low = hexDigit(text[i + 2]);
            if (!high || !low) return std::nullopt;
            result += static_cast<char>(*high << 4 | *low);
            i += 2;
        } else if (text[i] > ' ' && text[i] <= '~') {
            result += text[i] == '+' ? ' ' : text[i];
        } else {
            return std::nullopt;
        }
    }
    return result;
}

}  // namespace

std::optional<Fields> decodedForm(std::string_view body) {
    Fields form;
    while (!body.empty()) {
        const std::string_view pair = body.substr(0, body.find('&'));
        if (pair.size() + 1 == body.size()) return std::nullopt;  // ends in &
        body.remove_prefix(std::min(pair.size() + 1, body.size()));

        const std::size_t equals = pair.find('=');
        if (equals == 0 || equals == std::string_view::npos) return std::nullopt;
        auto name = decoded(pair.substr(0, equals));
        auto value = decoded(pair.substr(equals + 1));
        if (!name || !value) return std::nullopt;
        form.emplace_back(*std::move(name), *std::move(value));
    }
    return form;
}

}  // namespace zembra::sandbox
