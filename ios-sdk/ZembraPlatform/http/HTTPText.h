#pragma once

// How HTTP reads the text of a header; used by the client's other parts, on any thread.

#include <string_view>

#include <ZembraPlatform/NSURL.h>

namespace zembra {

inline bool isBlank(char c) noexcept {
    return c == ' ' || c == '\t';
}

/// The text without the blanks around it.
inline std::string_view trimmed(std::string_view text) noexcept {
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

/// Names and content types compare without regard to the case of ASCII letters.
inline bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
    const NSHTTPURLResponse::FieldNameLess less;
    return !less(a, b) && !less(b, a);
}

}  // namespace zembra
