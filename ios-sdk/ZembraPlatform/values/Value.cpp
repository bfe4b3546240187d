// What `Value` keeps in memory of its own, and whatever need not be inline. Any thread.

#include <algorithm>
#include <bit>
#include <cmath>
#include <memory>
#include <new>
#include <stdexcept>

#include <ZembraPlatform/Value.h>

#include "values/KeyHash.h"
#include "values/ValueBuilder.h"

namespace zembra {

static_assert(sizeof(Value) == 16 && sizeof(Value::Entry) == 2 * sizeof(Value));

namespace {

constexpr Value kNothing{};
constexpr std::size_t kMaximumCount = UINT32_MAX;

// A dictionary of more entries than this has an index behind its entries: a hash table with open addressing
// and at least twice as many slots as entries. A slot holds the number of an entry, from 1, or 0.
constexpr std::size_t kLinearSearchLimit = 16;
using Slot = std::uint32_t;

constexpr std::size_t slotCountFor(std::size_t entryCount) noexcept {
    return entryCount <= kLinearSearchLimit ? 0 : 2 * std::bit_ceil(entryCount);
}

/// The slot of `key`, or the empty one where it belongs.
Slot& slotOfKey(std::string_view key, std::span<Slot> slots, const Value::Entry* entries) noexcept {
    const std::size_t mask = slots.size() - 1;
    std::size_t position = static_cast<std::size_t>(hashOfKey(key)) & mask;
    while (slots[position] != 0 && entries[slots[position] - 1].key.string() != key)
        position = (position + 1) & mask;
    return slots[position];
}

/// The index of the first entry with the key of `entries[index]`. `slots` has the keys before it, if any.
std::size_t firstWithSameKey(std::span<const Value::Entry> entries, std::size_t index,
                             std::span<Slot> slots) {
    const std::string_view key = *entries[index].key.string();
    if (slots.empty()) {
        const auto keyOf = [](const Value::Entry& entry) { return *entry.key.string(); };
        return static_cast<std::size_t>(std::ranges::find(entries, key, keyOf) - entries.begin());
    }
    Slot& slot = slotOfKey(key, slots, entries.data());
    if (slot == 0) slot = static_cast<Slot>(index + 1);
    return slot - 1;
}

}  // namespace

// Making values
// ----------------------------------------------------------------------------------------------------

/// Makes a value that was nothing the one holder of new contents, of `byteCount` bytes yet to be filled.
void Value::allocate(Type type, std::size_t count, std::size_t byteCount) {
    if (count > kMaximumCount) throw std::length_error("too large for a zembra::Value");
    storage_.contents = new (::operator new(sizeof(Contents) + byteCount)) Contents{1};
    storage_.count = static_cast<std::uint32_t>(count);
    storage_.shortStringLength = kHasContents;
    storage_.type = type;
}

Value::Value(std::string_view string) {
    if (string.size() > kShortStringCapacity) {
        allocate(Type::string, string.size(), string.size());
        string.copy(reinterpret_cast<char*>(storage_.contents + 1), string.size());
    } else {
        string.copy(reinterpret_cast<char*>(&storage_), string.size());
        storage_.shortStringLength = static_cast<std::uint8_t>(string.size());
        storage_.type = Type::string;
    }
}

Value::Value(Date date) noexcept {
    storage_.integer = date.time_since_epoch().count();
    storage_.type = Type::date;
}

Value::Value(std::shared_ptr<NSObject> object) {
    if (!object) return;
    allocate(Type::object, 0, sizeof(object));
    new (storage_.contents + 1) std::shared_ptr<NSObject>(std::move(object));
}

Value Value::null() noexcept {
    Value null;
    null.storage_.type = Type::null;
    return null;
}

Value ValueBuilder::array(std::span<Value> elements) {
    Value array;
    array.allocate(Value::Type::array, elements.size(), elements.size_bytes());
    std::ranges::uninitialized_move(elements, std::span(array.items(), elements.size()));
    return array;
}

Value ValueBuilder::dictionary(std::span<Value::Entry> entries) {
    const std::size_t slotCount = slotCountFor(entries.size());
    Value dictionary;
    dictionary.allocate(Value::Type::dictionary, entries.size(),
                        entries.size_bytes() + slotCount * sizeof(Slot));
    auto* const own = reinterpret_cast<Value::Entry*>(dictionary.items());
    std::ranges::uninitialized_move(entries, std::span(own, entries.size()));
    if (slotCount == 0) return dictionary;
    const std::span slots(reinterpret_cast<Slot*>(own + entries.size()), slotCount);
    std::ranges::uninitialized_fill(slots, Slot{0});
    for (std::size_t index = 0; index < entries.size(); ++index)
        slotOfKey(*own[index].key.string(), slots, own) = static_cast<Slot>(index + 1);
    return dictionary;
}

Value Value::array(std::vector<Value> elements) {
    std::erase_if(elements, [](const Value& element) { return element.isNothing(); });
    return ValueBuilder::array(elements);
}

Value Value::array(std::initializer_list<Value> elements) {
    return array(std::vector<Value>(elements));
}

Value Value::dictionary(std::vector<Entry> entries) {
    std::erase_if(entries, [](const Entry& entry) { return !entry.key.isString(); });
    std::vector<Slot> slots(slotCountFor(entries.size()));
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const std::size_t first = firstWithSameKey(entries, index, slots);
        if (first != index) entries[first].value = std::exchange(entries[index].value, {});
    }
    std::erase_if(entries, [](const Entry& entry) { return entry.value.isNothing(); });
    return ValueBuilder::dictionary(entries);
}

Value Value::dictionary(std::initializer_list<Entry> entries) {
    return dictionary(std::vector<Entry>(entries));
}

// Letting go
// ----------------------------------------------------------------------------------------------------

namespace {

/// Whether the caller was the last holder. A sole holder needs no atomic write: nobody else can come to hold.
bool letGo(std::atomic<std::uintptr_t>& holders) noexcept {
    return holders.load(std::memory_order_acquire) == 1 ||
           holders.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

}  // namespace

void Value::release() noexcept {
    if (letGo(storage_.contents->holders)) destroy(storage_);
}

/// Frees contents that hold no items, or none any more.
void Value::freeContents(const Storage& storage) noexcept {
    if (storage.type == Type::object)
        std::destroy_at(reinterpret_cast<std::shared_ptr<NSObject>*>(storage.contents + 1));
    ::operator delete(storage.contents);
}

/// Frees `dead`, which nobody holds any more, and all that dies with it: a walk down a tree without stack or
/// memory of its own. The item through which the walk went down keeps the container around it, and the
/// container below keeps the address of that item, in place of its number of holders.
void Value::destroy(Storage dead) noexcept {
    const auto itemsOf = [](const Storage& storage) {
        return reinterpret_cast<Value*>(storage.contents + 1);
    };
    const auto itemCountOf = [](const Storage& storage) -> std::size_t {
        if (storage.type == Type::array) return storage.count;
        return storage.type == Type::dictionary ? 2 * std::size_t{storage.count} : 0;
    };

    dead.contents->holders.store(0, std::memory_order_relaxed);
    Value* item = itemsOf(dead);
    for (;;) {
        for (const Value* end = itemsOf(dead) + itemCountOf(dead); item != end;) {
            if (!item->hasContents() || !letGo(item->storage_.contents->holders)) {
                ++item;
            } else if (itemCountOf(item->storage_) == 0) {
                freeContents(item->storage_);
                ++item;
            } else {
                const Storage child = std::exchange(item->storage_, dead);
                child.contents->holders.store(reinterpret_cast<std::uintptr_t>(item),
                                              std::memory_order_relaxed);
                dead = child;
                item = itemsOf(dead);
                end = item + itemCountOf(dead);
            }
        }
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the address that was kept on the way down
        item = reinterpret_cast<Value*>(dead.contents->holders.load(std::memory_order_relaxed));
        freeContents(dead);
        if (item == nullptr) return;
        dead = item->storage_;
        ++item;
    }
}

// Reading
// ----------------------------------------------------------------------------------------------------

std::optional<bool> Value::boolean() const noexcept {
    return isBoolean() ? std::optional(storage_.boolean) : std::nullopt;
}

std::optional<std::int64_t> Value::integer() const noexcept {
    if (type() == Type::integer) return storage_.integer;
    if (type() != Type::floating) return std::nullopt;
    const double number = storage_.floating;
    if (!(number >= -0x1p63 && number < 0x1p63) || std::trunc(number) != number) return std::nullopt;
    return static_cast<std::int64_t>(number);
}

std::optional<std::uint64_t> Value::unsignedInteger() const noexcept {
    if (type() == Type::unsignedInteger) return storage_.unsignedInteger;
    if (type() == Type::floating) {
        const double number = storage_.floating;
        if (!(number >= 0 && number < 0x1p64) || std::trunc(number) != number) return std::nullopt;
        return static_cast<std::uint64_t>(number);
    }
    const std::optional<std::int64_t> number = integer();
    return number && *number >= 0 ? std::optional(static_cast<std::uint64_t>(*number)) : std::nullopt;
}

std::optional<double> Value::number() const noexcept {
    switch (type()) {
        case Type::integer:
            return static_cast<double>(storage_.integer);
        case Type::unsignedInteger:
            return static_cast<double>(storage_.unsignedInteger);
        case Type::floating:
            return storage_.floating;
        default:
            return std::nullopt;
    }
}

std::optional<Date> Value::date() const noexcept {
    return isDate() ? std::optional(Date(Date::duration(storage_.integer))) : std::nullopt;
}

const std::shared_ptr<NSObject>& Value::object() const noexcept {
    return *reinterpret_cast<const std::shared_ptr<NSObject>*>(storage_.contents + 1);
}

const Value& Value::elementAt(std::size_t index) const noexcept {
    return isArray() && index < storage_.count ? items()[index] : kNothing;
}

const Value& Value::operator[](std::string_view key) const noexcept {
    const std::span<const Entry> entries = this->entries();
    if (const std::size_t slotCount = slotCountFor(entries.size()); slotCount != 0) {
        auto* const slots = reinterpret_cast<Slot*>(items() + 2 * entries.size());
        const Slot slot = slotOfKey(key, {slots, slotCount}, entries.data());
        return slot == 0 ? kNothing : entries[slot - 1].value;
    }
    for (const Entry& entry : entries) {
        if (entry.key.string() == key) return entry.value;
    }
    return kNothing;
}

// Equality
// ----------------------------------------------------------------------------------------------------

namespace {

bool areEqualNumbers(const Value& a, const Value& b) noexcept {
    if (a.integer() || b.integer()) return a.integer() == b.integer();
    if (a.unsignedInteger() || b.unsignedInteger()) return a.unsignedInteger() == b.unsignedInteger();
    return a.number() == b.number() || (std::isnan(*a.number()) && std::isnan(*b.number()));
}

}  // namespace

bool operator==(const Value& a, const Value& b) {
    std::vector<std::pair<const Value*, const Value*>> containers;  // of equal size, still to be compared
    const auto mayBeEqual = [&containers](const Value& left, const Value& right) {
        if (left.isNumber() && right.isNumber()) return areEqualNumbers(left, right);
        if (left.type() != right.type() || left.count() != right.count()) return false;
        switch (left.type()) {
            case Value::Type::boolean:
                return left.boolean() == right.boolean();
            case Value::Type::string:
                return left.string() == right.string();
            case Value::Type::date:
                return left.date() == right.date();
            case Value::Type::object:
                return left.object() == right.object();
            case Value::Type::array:
            case Value::Type::dictionary:
                if (left.items() != right.items()) containers.emplace_back(&left, &right);
                return true;
            default:  // nothing and null have no contents
                return true;
        }
    };
    if (!mayBeEqual(a, b)) return false;
    while (!containers.empty()) {
        const auto [left, right] = containers.back();
        containers.pop_back();
        for (std::size_t index = 0; index < left->elements().size(); ++index) {
            if (!mayBeEqual((*left)[index], (*right)[index])) return false;
        }
        for (const auto& [key, value] : left->entries()) {
            if (!mayBeEqual(value, (*right)[*key.string()])) return false;
        }
    }
    return true;
}

}  // namespace zembra
