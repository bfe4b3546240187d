#pragma once

// From JSON text to values; `NSJSONSerialization` uses it, on any thread.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <ZembraPlatform/NSJSONSerialization.h>
#include <ZembraPlatform/Value.h>

namespace zembra {

/// The bytes of capacity beyond its size with which a text is decoded where it is, without a copy.
inline constexpr std::size_t kSpareJSONCapacity = 128;

/// The size of the longest text that is decoded.
inline constexpr std::size_t kMaximumJSONSize = UINT32_MAX - kSpareJSONCapacity;

/// Why a text was refused, and where.
struct JSONFault {
    NSJSONSerializationErrorCode code = NSJSONSerializationErrorMalformed;
    const char* reason = "";
    std::size_t offset = 0;
};

/// The value that `text`, of at most `kMaximumJSONSize` bytes, stands for, or nothing, and then `fault` says
/// why. `text` is changed. With `receive`, the elements of an outermost array are handed over one after the
/// other, and the value is an empty array.
[[nodiscard]] Value decodedJSON(std::string& text, const std::function<void(Value element)>* receive,
                                JSONFault& fault);

}  // namespace zembra
