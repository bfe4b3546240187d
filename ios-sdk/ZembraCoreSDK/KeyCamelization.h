#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <ZembraCoreSDK/ByteBlock.h>

#include <ZembraPlatform/ObjectRuntime.h>

namespace zembra {

/// The conversion of most keys, sixteen bytes at a time: of ASCII keys in which each separator stands before
/// a letter.
class BlockCamelization {
public:
    struct Block {
        ByteBlock bytes;  // zeros behind the last
        std::size_t size;
    };

    /// Converts the block of `key` that starts at `index`. All of them must be converted, in order.
    [[gnu::always_inline]] Block convert(std::string_view key, std::size_t index) noexcept {
        const std::size_t size = std::min(key.size() - index, kByteBlockSize);
        const ByteBlock bytes = byteBlock(key, index, size);
        const ByteBlock offsets = (bytes | eachByte(0x20)) - eachByte('a');
        const ByteBlock separators = ByteBlock(offsets > eachByte('z' - 'a')) & firstBytes(size);
        const ByteBlock followers = movedOn(separators) | ByteBlock{raisesFirst_};
        Block block{bytes & ~(followers & eachByte(0x20)),
                    size};  // raises these letters, if they are letters
        others_ |= highBits(bytes) | highBits(separators & followers);
        unsigned rest = highBits(separators);
        raisesFirst_ = static_cast<std::uint8_t>(0U - (rest >> (size - 1)));
        for (; rest != 0; rest = (rest & (rest - 1)) >> 1) {
            block.bytes = without(block.bytes, static_cast<std::size_t>(std::countr_zero(rest)));
            --block.size;
        }
        return block;
    }

    /// Whether the conversion is right, all of the key being converted. Nothing is decided on any other.
    [[nodiscard]] bool isRight() const noexcept { return others_ == 0 && raisesFirst_ == 0; }

private:
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
    static_assert(sizeof(detail::NameHead) == kByteBlockSize);
    if (key.empty() || key.size() > kByteBlockSize || !hasByteBlocks) return std::nullopt;
    BlockCamelization conversion;
    const BlockCamelization::Block block = conversion.convert(key, 0);
    if (!conversion.isRight()) return std::nullopt;
    return ShortName{std::bit_cast<detail::NameHead>(block.bytes), block.size};
}

/// Room for what a key of up to 64 bytes is converted to by blocks.
using NameBytes = std::array<char, 64 + kByteBlockSize>;

/// Where a longer name lives, most of them in `bytes`.
struct NameBuffer {
    NameBytes bytes;
    std::optional<std::string> other;
};

/// The form of any key, as `camelizedString` has it; it lives in `buffer`.
[[nodiscard]] std::optional<std::string_view> nameForKey(std::string_view key, NameBuffer& buffer);

}  // namespace zembra
