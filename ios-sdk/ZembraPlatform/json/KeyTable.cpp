// See the header.

#include "json/KeyTable.h"

#include <algorithm>
#include <utility>

#include "values/KeyHash.h"

namespace zembra {

namespace {

/// Moves `place` behind `key`. Where `key` is expected soon, the keys before it count as absent here; else it
/// replaces the expected one.
void expect(KeyTable::Key* key, KeyTable::Place& place) {
    constexpr std::size_t kMostAbsent = 8;  // bounds the work that a text with keys in random order makes
    constexpr std::size_t kMostExpected = 256;
    std::vector<KeyTable::Key*>& order = place.outer->inner;
    const std::size_t end = std::min(order.size(), place.position + kMostAbsent);
    for (std::size_t index = place.position; index < end; ++index) {
        if (order[index] != key) continue;
        place.position = index + 1;
        return;
    }
    if (place.position < order.size()) {
        order[place.position++] = key;
    } else if (order.size() < kMostExpected) {
        order.push_back(key);
        ++place.position;
    }
}

}  // namespace

KeyTable::Key* KeyTable::take(Place& place, std::string_view string) {
    if (2 * keys_.size() >= slots_.size()) growSlots();
    Key*& slot = slotOf(string);
    if (slot == nullptr) {
        slot = &keys_.emplace_back();
        slot->value = string;
        slot->string = *slot->value.string();
        slot->isPlain = string.find_first_of("\"\\") == std::string_view::npos;
    }
    expect(slot, place);
    return slot;
}

bool KeyTable::areDistinct(std::span<Key* const> keys) {
    ++dictionaryCount_;
    return std::ranges::none_of(keys, [this](Key* key) {
        return std::exchange(key->lastSeenIn, dictionaryCount_) == dictionaryCount_;
    });
}

KeyTable::Key*& KeyTable::slotOf(std::string_view string) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t position = static_cast<std::size_t>(hashOfKey(string)) & mask;
    while (slots_[position] != nullptr && slots_[position]->string != string)
        position = (position + 1) & mask;
    return slots_[position];
}

void KeyTable::growSlots() {
    slots_.assign(std::max<std::size_t>(64, 2 * slots_.size()), nullptr);
    for (Key& key : keys_)
        slotOf(key.string) = &key;
}

}  // namespace zembra
