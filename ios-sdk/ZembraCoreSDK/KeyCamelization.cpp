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
    const char* end;  ///< Of what was written; `nullptr` where the conversion never ends.
    bool isASCII;
    bool holdsZero;
};

/// Converts the bytes of `scanned` into `out`, which has room for as many.
Conversion camelize(std::string_view scanned, char* out) noexcept {
    unsigned char others = 0;  // the bits of separators and of the bytes after them: all others are letters
    bool holdsZero = false;
    const char* const end = scanned.data() + scanned.size();
    for (const char* next = scanned.data(); next != end; ++next) {
        char byte = *next;
        if (!isLetter(byte)) {
            others |= static_cast<unsigned char>(byte);
            if (++next == end) return {nullptr, others < 0x80, holdsZero};
            byte = raised(*next);
            others |= static_cast<unsigned char>(byte);
            holdsZero |= byte == '\0';
        }
        *out++ = byte;
    }
    return {out, others < 0x80, holdsZero};
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
    if (conversion.end == nullptr) camelizationNeverEnds();
    std::string_view name(out, static_cast<std::size_t>(conversion.end - out));
    if (conversion.holdsZero) name = name.substr(0, name.find('\0'));
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
