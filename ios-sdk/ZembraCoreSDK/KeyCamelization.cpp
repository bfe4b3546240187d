// Turns JSON keys into property names. The functions are pure; any thread may call them.

#include <algorithm>
#include <exception>
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

/// Ends the process: the conversion would write zero bytes for ever, beyond the end of its buffer. The
/// terminate handler finds the reason as the current exception; nobody else can catch it.
[[noreturn]] void camelizationNeverEnds() {
    try {
        throw std::logic_error(
            "the camelization of a JSON key that stands on a separator at its end never ends: "
            "screen JSON with withoutEndlessKeys");
    } catch (...) {
        std::terminate();
    }
}

constexpr bool isLetter(char byte) noexcept {
    return static_cast<unsigned char>((byte | 0x20) - 'a') < 26;
}

constexpr char raised(char byte) noexcept {
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 32) : byte;
}

/// As many bytes of a well-formed string as it has UTF-16 units: the conversion reads no more.
std::string_view scannedPart(std::string_view string) noexcept {
    return string.substr(0, lengthOfString(string));
}

/// What became of a key.
struct Conversion {
    std::size_t length = 0;  ///< Of what stands before the first zero byte.
    bool ends = true;
    bool isASCII = true;
};

/// Converts the bytes of `scanned` into `out`, which has room for as many.
Conversion camelize(std::string_view scanned, char* out) noexcept {
    constexpr std::size_t kNone = std::string_view::npos;
    std::size_t length = 0;
    std::size_t firstZero = kNone;
    unsigned char separators = 0;  // their bits, and those of the bytes after them: all others are letters
    for (std::size_t index = 0; index < scanned.size(); ++index) {
        const char byte = scanned[index];
        if (isLetter(byte)) {
            out[length++] = byte;
            continue;
        }
        separators |= static_cast<unsigned char>(byte);
        if (++index == scanned.size()) return {.length = length, .ends = false, .isASCII = separators < 0x80};
        const char follower = scanned[index];
        separators |= static_cast<unsigned char>(follower);
        if (follower == '\0' && firstZero == kNone) firstZero = length;
        out[length++] = raised(follower);
    }
    return {.length = firstZero == kNone ? length : firstZero, .isASCII = separators < 0x80};
}

}  // namespace

bool isSkippedName(std::string_view name) noexcept {
    return name == "id" || name == "_id" || name == "description";
}

std::optional<std::string_view> nameForKey(std::string_view key, NameBuffer& buffer) {
    char* out = buffer.shortName.data();
    if (key.size() > buffer.shortName.size()) {
        buffer.longName.resize(key.size());
        out = buffer.longName.data();
    }
    Conversion conversion = camelize(key, out);
    const bool isASCII = conversion.isASCII;
    if (!isASCII) {
        if (!isWellFormedUTF8(key)) return std::nullopt;
        conversion = camelize(scannedPart(key), out);
    }
    if (!conversion.ends) camelizationNeverEnds();
    const std::string_view name(out, conversion.length);
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
    string = scannedPart(string);
    // Of the separators at the end, every other one takes the next along; a last one alone is never passed.
    const auto lastLetter = std::find_if(string.rbegin(), string.rend(), isLetter);
    return (lastLetter - string.rbegin()) % 2 == 0;
}

}  // namespace zembra
