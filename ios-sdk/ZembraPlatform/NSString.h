#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <ZembraPlatform/NSObject.h>

/// Facts about strings. A string is a `std::string` or a `std::string_view` in UTF-8 and may hold any bytes.
/// All functions are pure and may be called from any thread.
namespace zembra {

/// Whether `string` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
[[nodiscard]] ZEMBRA_EXPORT bool isWellFormedUTF8(std::string_view string) noexcept;

/// The length in bytes of the well-formed character that `string` starts with, 0 where there is none.
[[nodiscard]] ZEMBRA_EXPORT std::size_t lengthOfUTF8Character(std::string_view string) noexcept;

/// The number of UTF-16 code units of `string`. A byte that belongs to no well-formed character counts as
/// one.
[[nodiscard]] ZEMBRA_EXPORT NSUInteger lengthOfString(std::string_view string) noexcept;

/// A copy of `bytes`, or `std::nullopt` where they are not well-formed UTF-8.
[[nodiscard]] ZEMBRA_EXPORT std::optional<std::string> stringWithUTF8String(std::string_view bytes);

}  // namespace zembra
