#pragma once

// The keys of one JSON text; its decoder uses them, on the decoder's thread.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string_view>
#include <vector>

#include <ZembraPlatform/Value.h>

namespace zembra {

/// Makes each distinct key of a text once, however many dictionaries have it.
///
/// A dictionary mostly has the keys of the one before it under the same outer key, in the same order. So a
/// key is first compared, as it stands in the text, with the one that is expected; only an unexpected key is
/// unescaped and looked up by its hash. Against a lookup of every key this saves 10 to 25 % of the mapping.
class KeyTable {
public:
    struct Key {
        Value value;
        std::string_view string;     // that of `value`
        bool isPlain = false;        // stands in a text as it is, without escapes
        std::size_t lastSeenIn = 0;  // see `areDistinct`
        std::vector<Key*> inner{};   // the keys that are expected in a dictionary under this key, in order
    };

    /// A place among the keys of a dictionary under the key `outer`, at whatever depth.
    struct Place {
        Key* outer;
        std::size_t position = 0;
    };

    /// The outer key of the outermost dictionaries.
    [[nodiscard]] Key* root() { return &root_; }

    /// The key that is expected at `place`, if it is what `text` starts with (behind the key's opening
    /// quotation mark), and then `place` moves on; else `nullptr`.
    [[nodiscard]] static Key* takeExpected(Place& place, std::string_view text) {
        const std::vector<Key*>& expected = place.outer->inner;
        if (place.position == expected.size()) return nullptr;
        Key* const key = expected[place.position];
        const std::string_view string = key->string;
        const bool isHere = key->isPlain && text.size() > string.size() && text[string.size()] == '"' &&
                            text.starts_with(string);
        if (!isHere) return nullptr;
        ++place.position;
        return key;
    }

    /// The key `string`, which is not the expected one; `place` moves on and expects it here from now on.
    [[nodiscard]] Key* take(Place& place, std::string_view string);

    /// Whether no key is among `keys`, those of one dictionary, more than once.
    [[nodiscard]] bool areDistinct(std::span<Key* const> keys);

private:
    [[nodiscard]] Key*& slotOf(std::string_view string);
    void growSlots();

    Key root_;
    std::deque<Key> keys_;
    std::vector<Key*> slots_;  // a hash table with open addressing, at least twice as many as keys
    std::size_t dictionaryCount_ = 0;
};

}  // namespace zembra
