#pragma once

// Makes arrays and dictionaries without copying and checking; the JSON decoder uses it, on any thread.

#include <span>

#include <ZembraPlatform/Value.h>

namespace zembra {

/// Both leave nothing in place of what they take over.
class ValueBuilder {
public:
    ValueBuilder() = delete;

    /// An array of `elements`, none of which is nothing.
    [[nodiscard]] static Value array(std::span<Value> elements);

    /// A dictionary of `entries`, whose keys are distinct strings and whose values are not nothing.
    [[nodiscard]] static Value dictionary(std::span<Value::Entry> entries);
};

}  // namespace zembra
