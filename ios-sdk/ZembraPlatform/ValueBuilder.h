#pragma once

#include <cstddef>

#include <ZembraPlatform/Value.h>

namespace zembra {

/// Makes values of parts that the caller has in hand, without a copy: the decoder's way in.
class ValueBuilder {
public:
    /// The largest number of items of an array or of entries of a dictionary.
    static constexpr std::size_t kMaximumCount = 0x7FFF'FFFF;

    /// An array of `count` values, none of them nothing, or a dictionary of `count` entries with distinct
    /// strings as keys. Takes the items over as bytes: the caller forgets them without destroying them,
    /// unless an exception leaves them with the caller.
    [[nodiscard]] static Value array(const Value* elements, std::size_t count);
    [[nodiscard]] static Value dictionary(const Value::Entry* entries, std::size_t count);
};

}  // namespace zembra
