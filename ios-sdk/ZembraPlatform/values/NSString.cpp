// Facts about strings in UTF-8: pure functions, for any thread.

#include <cstdint>

#include <ZembraPlatform/NSString.h>

namespace zembra {

std::size_t lengthOfUTF8Character(std::string_view string) noexcept {
    const auto byte = [string](std::size_t index) { return static_cast<std::uint8_t>(string[index]); };
    const auto continues = [&](std::size_t index) {
        return index < string.size() && byte(index) >= 0x80 && byte(index) <= 0xBF;
    };
    if (string.empty()) return 0;
    const std::uint8_t lead = byte(0);
    if (lead < 0x80) return 1;
    if (lead < 0xC2) return 0;
    if (lead < 0xE0) return continues(1) ? 2 : 0;
    if (lead < 0xF0) {
        if (!continues(1) || !continues(2)) return 0;
        const bool isOverlong = lead == 0xE0 && byte(1) < 0xA0;
        const bool isSurrogate = lead == 0xED && byte(1) > 0x9F;
        return isOverlong || isSurrogate ? 0 : 3;
    }
    if (lead > 0xF4 || !continues(1) || !continues(2) || !continues(3)) return 0;
    const bool isOverlong = lead == 0xF0 && byte(1) < 0x90;
    const bool isTooLarge = lead == 0xF4 && byte(1) > 0x8F;
    return isOverlong || isTooLarge ? 0 : 4;
}

bool isWellFormedUTF8(std::string_view string) noexcept {
    while (!string.empty()) {
        const std::size_t length = lengthOfUTF8Character(string);
        if (length == 0) return false;
        string.remove_prefix(length);
    }
    return true;
}

NSUInteger lengthOfString(std::string_view string) noexcept {
    NSUInteger units = 0;
    while (!string.empty()) {
        const std::size_t length = lengthOfUTF8Character(string);
        units += length == 4 ? 2 : 1;
        string.remove_prefix(length == 0 ? 1 : length);
    }
    return units;
}

std::optional<std::string> stringWithUTF8String(std::string_view bytes) {
    if (!isWellFormedUTF8(bytes)) return std::nullopt;
    return std::string(bytes);
}

}  // namespace zembra
