#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace zembra {

/// Sixteen bytes of a text that are worked on at once; not part of the public interface. The compiler makes
/// the machine's vector instructions of it. Operators work on each byte by itself, comparisons give all ones
/// or zeros.
using ByteBlock [[gnu::vector_size(16)]] = std::uint8_t;

inline constexpr std::size_t kByteBlockSize = sizeof(ByteBlock);

/// Whether the first byte of a word is its lowest, as `byteBlock` and `highBits` have it.
inline constexpr bool hasByteBlocks = std::endian::native == std::endian::little;

inline ByteBlock eachByte(std::uint8_t byte) noexcept {
    return ByteBlock{} + byte;
}

/// Ones for the first `count` bytes, zeros for the others.
inline ByteBlock firstBytes(std::size_t count) noexcept {
    static constexpr std::array<std::uint64_t, 4> onesThenZeros{~std::uint64_t{0}, ~std::uint64_t{0}, 0, 0};
    ByteBlock block;
    std::memcpy(&block, reinterpret_cast<const char*>(onesThenZeros.data()) + kByteBlockSize - count,
                kByteBlockSize);
    return block;
}

/// The `size` bytes of `text` from `index` on, one to sixteen, with zeros behind them. Reads no others than
/// those of `text`.
inline ByteBlock byteBlock(std::string_view text, std::size_t index, std::size_t size) noexcept {
    const auto load = [](const char* from, auto part) {
        std::memcpy(&part, from, sizeof part);
        return std::uint64_t{part};
    };
    const char* const bytes = text.data() + index;
    const char* const end = bytes + size;
    std::uint64_t low = 0;
    std::uint64_t high = 0;
    if (size >= 8) {
        // In two steps, since a word cannot be shifted by as many bits as it has.
        const std::size_t half = 4 * (kByteBlockSize - size);
        low = load(bytes, std::uint64_t{});
        high = load(end - 8, std::uint64_t{}) >> half >> half;
    } else if (index + size >= 8) {
        low = load(end - 8, std::uint64_t{}) >> (64 - 8 * size);
    } else if (size >= 4) {
        low = load(bytes, std::uint32_t{}) | load(end - 4, std::uint32_t{}) << 8 * (size - 4);
    } else {
        low = load(bytes, std::uint8_t{}) | load(bytes + size / 2, std::uint8_t{}) << 8 * (size / 2) |
              load(end - 1, std::uint8_t{}) << 8 * (size - 1);
    }
    using Words [[gnu::vector_size(16)]] = std::uint64_t;
    return std::bit_cast<ByteBlock>(Words{low, high});
}

/// The bytes of `block`, each one place further on, behind a zero.
inline ByteBlock movedOn(ByteBlock block) noexcept {
    return __builtin_shufflevector(ByteBlock{}, block, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28,
                                   29, 30);
}

/// The bytes of `block` without the one at `index`, a zero at their end.
inline ByteBlock without(ByteBlock block, std::size_t index) noexcept {
    const ByteBlock kept = firstBytes(index);
    const ByteBlock movedBack =
        __builtin_shufflevector(block, ByteBlock{}, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    return (block & kept) | (movedBack & ~kept);
}

/// The high bit of each byte, that of the first lowest.
inline unsigned highBits(ByteBlock block) noexcept {
#if defined(__SSE2__)
    using Characters [[gnu::vector_size(16)]] = char;
    return static_cast<unsigned>(__builtin_ia32_pmovmskb128(std::bit_cast<Characters>(block)));
#else
    const auto ofWord = [](std::uint64_t word) {
        return static_cast<unsigned>((word >> 7 & 0x0101'0101'0101'0101) * 0x0102'0408'1020'4080 >> 56);
    };
    const auto words = std::bit_cast<std::array<std::uint64_t, 2>>(block);
    return ofWord(words[0]) | ofWord(words[1]) << 8;
#endif
}

}  // namespace zembra
