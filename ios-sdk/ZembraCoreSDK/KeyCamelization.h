#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include <ZembraPlatform/ObjectRuntime.h>

namespace zembra {

/// The conversion of most keys, eight bytes at a time: of ASCII keys in which each separator stands before a
/// letter.
class WordCamelization {
public:
    static constexpr bool isSupported = std::endian::native == std::endian::little;
    static constexpr std::size_t kWordSize = sizeof(std::uint64_t);

    struct Word {
        std::uint64_t bytes;  // the first lowest, zeros behind the last
        std::size_t size;
    };

    /// Converts the word of `key` that starts at `index`. All of them must be converted, in order.
    [[gnu::always_inline]] Word convert(std::string_view key, std::size_t index) noexcept {
        const char* const bytes = key.data() + index;
        const std::size_t rest = key.size() - index;
        return rest >= kWordSize ? next(load<std::uint64_t>(bytes), kWordSize)
                                 : next(lastWord(key, rest), rest);
    }

    /// Whether the conversion is right, all of the key being converted. Nothing is decided on any other.
    [[nodiscard]] bool isRight() const noexcept { return ((others_ | carry_) & kHighBits) == 0; }

private:
    static constexpr std::uint64_t kEachByte = 0x0101'0101'0101'0101;
    static constexpr std::uint64_t kHighBits = 0x80 * kEachByte;

    template <class Part>
    static std::uint64_t load(const char* bytes) noexcept {
        Part part;
        std::memcpy(&part, bytes, sizeof part);
        return part;
    }

    /// The last `size` bytes, one to seven, with zeros behind them. No byte beyond the key is read.
    static std::uint64_t lastWord(std::string_view key, std::size_t size) noexcept {
        const char* const end = key.data() + key.size();
        if (key.size() >= 8) return load<std::uint64_t>(end - 8) >> (64 - 8 * size);
        if (size >= 4)
            return load<std::uint32_t>(end - size) | load<std::uint32_t>(end - 4) << 8 * (size - 4);
        return load<std::uint8_t>(end - size) | load<std::uint8_t>(end - size + size / 2) << 8 * (size / 2) |
               load<std::uint8_t>(end - 1) << 8 * (size - 1);
    }

    // Sets of bytes in a word are the high bits of these bytes.
    // ----------------------------------------------

    [[gnu::always_inline]] Word next(std::uint64_t word, std::size_t size) noexcept {
        others_ |= word;
        std::uint64_t separators = bytesBesideLetters(word) & kHighBits >> 8 * (kWordSize - size);
        const std::uint64_t followers = separators << 8 | carry_;
        if ((separators | followers) == 0) return {word, size};
        others_ |= separators & followers;
        carry_ = separators >> 8 * (size - 1);
        word &= ~(followers >> 2);  // raises these letters, if that is what they are
        const std::size_t separatorCount = (separators >> 7) * kEachByte >> 56;
        for (; separators != 0; separators = (separators & (separators - 1)) >> 8) {
            const std::uint64_t before = ((separators & -separators) >> 7) - 1;
            word = (word & before) | (word >> 8 & ~before);
        }
        return {word, size - separatorCount};
    }

    /// Bytes that are not ASCII may be among them or not.
    static std::uint64_t bytesBesideLetters(std::uint64_t word) noexcept {
        const std::uint64_t lowercase = (word | 0x20 * kEachByte) & ~kHighBits;
        const std::uint64_t fromA = lowercase + (0x80 - 'a') * kEachByte;
        const std::uint64_t aboveZ = lowercase + (0x7F - 'z') * kEachByte;
        return (~fromA | aboveZ) & kHighBits;
    }

    std::uint64_t carry_ = 0;   // whether the last byte of the word before was a separator
    std::uint64_t others_ = 0;  // what this conversion is not for
};

/// The camelized form of a key of at most sixteen bytes.
struct ShortName {
    detail::NameHead head;
    std::size_t size = 0;

    [[nodiscard]] std::string_view string() const noexcept {
        return {reinterpret_cast<const char*>(head.words), size};
    }
};

/// The form of most short keys; `std::nullopt`, with nothing decided, for any other key.
[[gnu::always_inline]] inline std::optional<ShortName> shortNameForKey(std::string_view key) noexcept {
    if (key.empty() || key.size() > sizeof(detail::NameHead) || !WordCamelization::isSupported)
        return std::nullopt;
    WordCamelization conversion;
    const WordCamelization::Word first = conversion.convert(key, 0);
    ShortName name{{first.bytes, 0}, first.size};
    if (key.size() > WordCamelization::kWordSize) {
        const WordCamelization::Word second = conversion.convert(key, WordCamelization::kWordSize);
        // Moves each by so many bytes in two steps: a word cannot be shifted by as many bits as it has.
        const std::size_t half = 4 * first.size;
        name.head.words[0] |= second.bytes << half << half;
        name.head.words[1] = second.bytes >> (32 - half) >> (32 - half);
        name.size += second.size;
    }
    return conversion.isRight() ? std::optional(name) : std::nullopt;
}

/// Room for what a key of up to 64 bytes is converted to by words.
using NameBytes = std::array<char, 64 + WordCamelization::kWordSize>;

/// Where a longer name lives, most of them in `bytes`.
struct NameBuffer {
    NameBytes bytes;
    std::optional<std::string> other;
};

/// The form of any key, as `camelizedString` has it; it lives in `buffer`.
[[nodiscard]] std::optional<std::string_view> nameForKey(std::string_view key, NameBuffer& buffer);

}  // namespace zembra
