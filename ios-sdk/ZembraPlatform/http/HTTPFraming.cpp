// Judges the header lines of an answer: what of HTTP's framing is accepted.

#include "http/HTTPFraming.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

#include "http/HTTPText.h"

namespace zembra {

namespace {

constexpr std::string_view kVersion = "HTTP/1.";

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

}  // namespace

bool HTTPFraming::takeLine(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.find('\r') != std::string_view::npos || line.find('\0') != std::string_view::npos) return false;
    if (expectsStatus_) return takeStatusLine(line);
    if (line.empty()) {
        canBeFolded_ = false;
        const bool isInterim = status_ < 200 && status_ != 101;
        if (isInterim)
            expectsStatus_ = true;
        else
            hasWholeHeader_ = true;
        return true;
    }
    if (isBlank(line.front())) return canBeFolded_;
    const std::size_t colon = line.find(':');
    if (colon == 0 || colon == std::string_view::npos) return false;
    const std::string_view name = line.substr(0, colon);
    return std::ranges::none_of(name, isBlank) && takeField(name, trimmed(line.substr(colon + 1)));
}

bool HTTPFraming::takeStatusLine(std::string_view line) {
    *this = {};
    expectsStatus_ = false;
    if (!line.starts_with(kVersion)) return false;
    line.remove_prefix(kVersion.size());
    const bool isStatusLine = line.size() >= 5 && isDigit(line[0]) && line[1] == ' ' &&
                              std::ranges::all_of(line.substr(2, 3), isDigit) &&
                              (line.size() == 5 || line[5] == ' ');
    if (isStatusLine) std::from_chars(&line[2], &line[2] + 3, status_);
    return isStatusLine;
}

bool HTTPFraming::takeField(std::string_view name, std::string_view value) {
    const bool isTrailer = hasWholeHeader_;
    const bool isLength = equalsIgnoringCase(name, "Content-Length");
    const bool isEncoding = equalsIgnoringCase(name, "Transfer-Encoding");
    canBeFolded_ = !isLength && !isEncoding;
    if (isTrailer || canBeFolded_) return true;
    if (isEncoding) {
        const bool isFirst = !isChunked_;
        isChunked_ = equalsIgnoringCase(value, "chunked");
        return isFirst && isChunked_;
    }
    std::uint64_t length = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), length);
    if (error != std::errc() || end != value.data() + value.size() ||
        length > std::uint64_t{std::numeric_limits<std::int64_t>::max()} || (length_ && length_ != length)) {
        return false;
    }
    length_ = length;
    return true;
}

bool HTTPFraming::endsWithConnection() const noexcept {
    return !isChunked_ && !length_ && status_ != 204 && status_ != 304;
}

}  // namespace zembra
