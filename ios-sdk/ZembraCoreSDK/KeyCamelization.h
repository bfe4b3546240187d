#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <ZembraPlatform/ObjectRuntime.h>

namespace zembra {

/// The conversion of most keys, sixteen bytes at a time: of ASCII keys in which each separator stands before
/// a letter.
class BlockCamelization {
public:
    static constexpr bool isSupported = std::endian::native == std::endian::little;
    static constexpr std::size_t kBlockSize = 16;

    using Bytes [[gnu::vector_size(kBlockSize)]] = std::uint8_t;

    struct Block {
        Bytes bytes;  // zeros behind the last
        std::size_t size;
    };

    /// Converts the block of `key` that starts at `index`. All of them must be converted, in order.
    [[gnu::always_inline]] Block convert(std::string_view key, std::size_t index) noexcept {
        const std::size_t size = std::min(key.size() - index, kBlockSize);
        const Bytes bytes = load(key, index, size);
        const Bytes offsets = (bytes | eachByte(0x20)) - eachByte('a');
        const Bytes separators = Bytes(offsets > eachByte('z' - 'a')) & firstBytes(size);
        const Bytes followers = bytesBehindOne(separators) | Bytes{raisesFirst_};
        Block block{bytes & ~(followers & eachByte(0x20)),
                    size};  // raises these letters, if they are letters
        const unsigned separatorSet = highBits(separators);
        others_ |= highBits(bytes) | highBits(separators & followers);
        raisesFirst_ = static_cast<std::uint8_t>(0U - (separatorSet >> (size - 1)));
        for (unsigned rest = separatorSet; rest != 0; rest = (rest & (rest - 1)) >> 1) {
            const Bytes kept = firstBytes(static_cast<std::size_t>(std::countr_zero(rest)));
            block.bytes = (block.bytes & kept) | (bytesBehindFirst(block.bytes) & ~kept);
            --block.size;
        }
        return block;
    }

    /// Whether the conversion is right, all of the key being converted. Nothing is decided on any other.
    [[nodiscard]] bool isRight() const noexcept { return others_ == 0 && raisesFirst_ == 0; }

private:
    using Words [[gnu::vector_size(kBlockSize)]] = std::uint64_t;

    static Bytes eachByte(std::uint8_t byte) noexcept { return Bytes{} + byte; }

    template <class Part>
    static std::uint64_t load(const char* bytes) noexcept {
        Part part;
        std::memcpy(&part, bytes, sizeof part);
        return part;
    }

    /// Zeros stand behind the bytes. No byte beyond the key is read.
    static Bytes load(std::string_view key, std::size_t index, std::size_t size) noexcept {
        const char* const bytes = key.data() + index;
        const char* const end = bytes + size;
        std::uint64_t low = 0;
        std::uint64_t high = 0;
        if (size >= 8) {
            // In two steps, since a word cannot be shifted by as many bits as it has.
            const std::size_t half = 4 * (kBlockSize - size);
            low = load<std::uint64_t>(bytes);
            high = load<std::uint64_t>(end - 8) >> half >> half;
        } else if (key.size() >= 8) {
            low = load<std::uint64_t>(end - 8) >> (64 - 8 * size);
        } else if (size >= 4) {
            low = load<std::uint32_t>(bytes) | load<std::uint32_t>(end - 4) << 8 * (size - 4);
        } else {
            low = load<std::uint8_t>(bytes) | load<std::uint8_t>(bytes + size / 2) << 8 * (size / 2) |
                  load<std::uint8_t>(end - 1) << 8 * (size - 1);
        }
        return std::bit_cast<Bytes>(Words{low, high});
    }

    /// Ones for the first `count` bytes, zeros for the others.
    static Bytes firstBytes(std::size_t count) noexcept {
        static constexpr std::array<std::uint64_t, 4> onesThenZeros{~std::uint64_t{0}, ~std::uint64_t{0}, 0,
                                                                    0};
        Bytes bytes;
        std::memcpy(&bytes, reinterpret_cast<const char*>(onesThenZeros.data()) + kBlockSize - count,
                    sizeof bytes);
        return bytes;
    }

    /// The bytes of `block`, each one place further on, behind a zero.
    static Bytes bytesBehindOne(Bytes block) noexcept {
        return __builtin_shufflevector(Bytes{}, block, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28,
                                       29, 30);
    }

    /// The bytes of `block` without the first one, a zero at their end.
    static Bytes bytesBehindFirst(Bytes block) noexcept {
        return __builtin_shufflevector(block, Bytes{}, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    }

    /// The high bit of each byte, that of the first lowest.
    static unsigned highBits(Bytes bytes) noexcept {
#if defined(__SSE2__)
        return static_cast<unsigned>(_mm_movemask_epi8(std::bit_cast<__m128i>(bytes)));
#else
        const auto ofWord = [](std::uint64_t word) {
            return static_cast<unsigned>((word >> 7 & 0x0101'0101'0101'0101) * 0x0102'0408'1020'4080 >> 56);
        };
        const auto words = std::bit_cast<Words>(bytes);
        return ofWord(words[0]) | ofWord(words[1]) << 8;
#endif
    }

    unsigned others_ = 0;           // what this conversion is not for
    std::uint8_t raisesFirst_ = 0;  // all ones: the block before ended with a separator
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
    static_assert(sizeof(detail::NameHead) == BlockCamelization::kBlockSize);
    if (key.empty() || key.size() > BlockCamelization::kBlockSize || !BlockCamelization::isSupported)
        return std::nullopt;
    BlockCamelization conversion;
    const BlockCamelization::Block block = conversion.convert(key, 0);
    if (!conversion.isRight()) return std::nullopt;
    return ShortName{std::bit_cast<detail::NameHead>(block.bytes), block.size};
}

/// Room for what a key of up to 64 bytes is converted to by blocks.
using NameBytes = std::array<char, 64 + BlockCamelization::kBlockSize>;

/// Where a longer name lives, most of them in `bytes`.
struct NameBuffer {
    NameBytes bytes;
    std::optional<std::string> other;
};

/// The form of any key, as `camelizedString` has it; it lives in `buffer`.
[[nodiscard]] std::optional<std::string_view> nameForKey(std::string_view key, NameBuffer& buffer);

}  // namespace zembra
