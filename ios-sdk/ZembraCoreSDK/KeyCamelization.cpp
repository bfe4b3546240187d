// Turns JSON keys into property names. The functions are pure; any thread may call them.

#include <algorithm>
#include <stdexcept>

#include <ZembraCoreSDK/KeyCamelization.h>
#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSString.h>

namespace zembra {

bool IsUppercase(const char& byte) noexcept {
    return byte >= 'A' && byte <= 'Z';
}

bool IsLowercase(const char& byte) noexcept {
    return byte >= 'a' && byte <= 'z';
}

namespace {

/// Ends the process: the conversion would write zero bytes for ever, beyond the end of its buffer. Called by
/// a `noexcept` function, so that the exception reaches the terminate handler and nobody else.
[[noreturn]] void camelizationNeverEnds() {
    throw std::logic_error(
        "the camelization of a JSON key that stands on a separator at its end never ends: "
        "screen JSON with withoutEndlessKeys");
}

constexpr bool isLetter(char byte) noexcept {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

constexpr char raised(char byte) noexcept {
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 32) : byte;
}

bool isAllASCII(std::string_view string) noexcept {
    unsigned char bits = 0;
    for (const char byte : string)
        bits |= static_cast<unsigned char>(byte);
    return bits < 0x80;
}

/// How many bytes of a well-formed string the conversion reads.
std::size_t scannedLength(std::string_view string) noexcept {
    return isAllASCII(string) ? string.size() : lengthOfString(string);
}

/// Converts `scanned` into `out`, which has room for as many bytes. Returns how many of them stand before the
/// first zero byte.
std::size_t camelize(std::string_view scanned, char* out) noexcept {
    std::size_t length = 0;
    std::size_t end = std::string_view::npos;
    for (std::size_t index = 0; index < scanned.size(); ++index) {
        if (isLetter(scanned[index])) {
            out[length++] = scanned[index];
            continue;
        }
        if (++index == scanned.size()) camelizationNeverEnds();
        if (scanned[index] == '\0') end = std::min(end, length);
        out[length++] = raised(scanned[index]);
    }
    return std::min(end, length);
}

}  // namespace

bool isSkippedName(std::string_view name) noexcept {
    return name == "id" || name == "_id" || name == "description";
}

std::optional<std::string_view> nameForKey(std::string_view key, NameBuffer& buffer) {
    const bool isASCII = isAllASCII(key);
    if (!isASCII && !isWellFormedUTF8(key)) return std::nullopt;
    const std::string_view scanned = isASCII ? key : key.substr(0, lengthOfString(key));
    char* out = buffer.shortName.data();
    if (scanned.size() > buffer.shortName.size()) {
        buffer.longName.resize(scanned.size());
        out = buffer.longName.data();
    }
    const std::string_view name(out, camelize(scanned, out));
    if (!isASCII && !isWellFormedUTF8(name)) return std::nullopt;
    return name;
}

std::optional<std::string> camelizedString(std::string_view string) {
    NameBuffer buffer;
    const std::optional<std::string_view> name = nameForKey(string, buffer);
    return name ? std::optional<std::string>(*name) : std::nullopt;
}

bool camelizationEnds(std::string_view string) noexcept {
    if (!isWellFormedUTF8(string)) return true;
    string = string.substr(0, scannedLength(string));
    // Of the separators at the end, every other one takes the next along; a last one alone is never passed.
    const auto lastLetter = std::find_if(string.rbegin(), string.rend(), isLetter);
    return (lastLetter - string.rbegin()) % 2 == 0;
}

}  // namespace zembra
