#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <new>
#include <ostream>
#include <stdexcept>

#include <ZembraPlatform/Value.h>

#include "values/KeyHash.h"
#include "values/ValueBuilder.h"

namespace zembra {

static_assert(sizeof(Value) == 16 && sizeof(Value::Entry) == 2 * sizeof(Value));

namespace {

constexpr Value kNothing{};

// A dictionary of more entries than this has an index behind its entries: a hash table with open addressing
// and at least twice as many slots as entries. A slot holds the number of an entry, from 1, or 0.
constexpr std::size_t kMaximumCount = UINT32_MAX;
constexpr std::size_t kLinearSearchLimit = 16;
using Slot = std::uint32_t;

constexpr std::size_t slotCountFor(std::size_t entryCount) noexcept {
    return entryCount <= kLinearSearchLimit ? 0 : 2 * std::bit_ceil(entryCount);
}

/// The slot of `key`, or the empty one where it belongs.
Slot& slotOfKey(std::string_view key, std::span<Slot> slots, const Value::Entry* entries) noexcept {
    const std::size_t mask = slots.size() - 1;
    std::size_t position = hashOfKey(key) & mask;
    while (slots[position] != 0 && entries[slots[position] - 1].key.string() != key)
        position = (position + 1) & mask;
    return slots[position];
}

/// Moves values as bytes: the caller forgets those at `from` without destroying them.
void copyBytes(Value* to, const Value* from, std::size_t byteCount) {
    std::memcpy(static_cast<void*>(to), static_cast<const void*>(from), byteCount);
}

void checkCount(std::size_t count) {
    if (count > kMaximumCount) throw std::length_error("too many items for a zembra::Value");
}

/// Where the entry with the key of `entries[index]` first stands.
std::size_t firstWithSameKey(std::span<const Value::Entry> entries, std::size_t index,
                             std::span<Slot> slots) {
    const std::string_view key = *entries[index].key.string();
    if (slots.empty()) {
        return static_cast<std::size_t>(
            std::ranges::find(entries, key, [](const Value::Entry& entry) { return *entry.key.string(); }) -
            entries.begin());
    }
    Slot& slot = slotOfKey(key, slots, entries.data());
    if (slot == 0) slot = static_cast<Slot>(index + 1);
    return slot - 1;
}

}  // namespace

// Making values
// ----------------------------------------------------------------------------------------------------

Value::Storage Value::allocate(std::uint8_t kind, std::size_t count, std::size_t byteCount,
                               SlabAllocator* slabs) {
    Storage storage;
    const std::size_t size = sizeof(Contents) + byteCount;
    void* place = slabs == nullptr ? nullptr : slabs->room(size);
    if (place != nullptr)
        storage.slabOffset = slabs->take(size);
    else
        place = ::operator new(size);
    storage.contents = new (place) Contents{1};
    storage.count = static_cast<std::uint32_t>(count);
    storage.kind = kind;
    return storage;
}

Value Value::arrayOfParts(const Value* elements, std::size_t count, SlabAllocator* slabs) {
    checkCount(count);
    const std::size_t byteCount = count * sizeof(Value);
    Value array(allocate(static_cast<std::uint8_t>(Type::array), count, byteCount, slabs));
    if (count != 0) copyBytes(array.items(), elements, byteCount);
    return array;
}

Value Value::dictionaryOfParts(const Value* keysAndValues, std::size_t count, SlabAllocator* slabs) {
    checkCount(count);
    const std::size_t byteCount = count * sizeof(Entry);
    const std::size_t slotCount = slotCountFor(count);
    Value dictionary(allocate(static_cast<std::uint8_t>(Type::dictionary), count,
                              byteCount + slotCount * sizeof(Slot), slabs));
    if (count != 0) copyBytes(dictionary.items(), keysAndValues, byteCount);
    const std::span<const Entry> entries = dictionary.entries();
    dictionary.storage_.containsNull =
        std::ranges::any_of(entries, [](const Entry& entry) { return entry.value.isNull(); });
    if (slotCount != 0) {
        const std::span slots(reinterpret_cast<Slot*>(dictionary.items() + 2 * count), slotCount);
        std::ranges::fill(slots, Slot{0});
        for (std::size_t index = 0; index < count; ++index)
            slotOfKey(*entries[index].key.string(), slots, entries.data()) = static_cast<Slot>(index + 1);
    }
    return dictionary;
}

void ValueBuilder::grow() {
    const std::size_t capacity = std::max<std::size_t>(64, 2 * capacity_);
    Value* const parts = std::allocator<Value>().allocate(capacity);
    if (size_ != 0) copyBytes(parts, parts_, size_ * sizeof(Value));
    if (capacity_ != 0) std::allocator<Value>().deallocate(parts_, capacity_);
    parts_ = parts;
    capacity_ = capacity;
}

Value::Value(std::string_view string) {
    if (string.size() <= kShortStringCapacity) {
        string.copy(reinterpret_cast<char*>(&storage_), string.size());
        storage_.shortStringLength = static_cast<std::uint8_t>(string.size());
        storage_.kind = static_cast<std::uint8_t>(Type::string);
        return;
    }
    if (string.size() > kMaximumCount) throw std::length_error("a string too long for a zembra::Value");
    storage_ = allocate(kLongString, string.size(), string.size());
    string.copy(reinterpret_cast<char*>(storage_.contents + 1), string.size());
}

Value::Value(std::shared_ptr<NSObject> object) {
    if (!object) return;
    storage_ = allocate(static_cast<std::uint8_t>(Type::object), 0, sizeof(object));
    new (storage_.contents + 1) std::shared_ptr<NSObject>(std::move(object));
}

Value Value::array(std::vector<Value> elements) {
    std::erase_if(elements, [](const Value& element) { return element.isNothing(); });
    Value array = arrayOfParts(elements.data(), elements.size());
    for (Value& element : elements)
        element.storage_ = {};  // now held by the array
    return array;
}

Value Value::array(std::initializer_list<Value> elements) {
    return array(std::vector<Value>(elements));
}

Value Value::dictionary(std::vector<Entry> entries) {
    checkCount(entries.size());
    std::erase_if(entries, [](const Entry& entry) { return !entry.key.isString(); });
    std::vector<Slot> slots(slotCountFor(entries.size()));
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const std::size_t first = firstWithSameKey(entries, index, slots);
        if (first != index) entries[first].value = std::exchange(entries[index].value, {});
    }
    std::erase_if(entries, [](const Entry& entry) { return entry.value.isNothing(); });
    Value dictionary = dictionaryOfParts(reinterpret_cast<const Value*>(entries.data()), entries.size());
    for (auto& [key, value] : entries)
        key.storage_ = value.storage_ = {};  // now held by the dictionary
    return dictionary;
}

Value Value::dictionary(std::initializer_list<Entry> entries) {
    return dictionary(std::vector<Entry>(entries));
}

// Letting go
// ----------------------------------------------------------------------------------------------------

namespace {

/// Whether the caller was the last holder. A sole holder needs no atomic write: nobody else can come to hold.
template <class Count>
bool letGo(std::atomic<Count>& holders) noexcept {
    return holders.load(std::memory_order_acquire) == 1 ||
           holders.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

}  // namespace

void Value::freeContents(const Storage& storage) noexcept {
    if (storage.kind == static_cast<std::uint8_t>(Type::object))
        std::destroy_at(reinterpret_cast<std::shared_ptr<NSObject>*>(storage.contents + 1));
    if (storage.slabOffset == 0)
        ::operator delete(storage.contents);
    else
        SlabAllocator::release(storage);
}

void SlabAllocator::release(const Value::Storage& storage) noexcept {
    char* const contents = reinterpret_cast<char*>(storage.contents);
    auto* const slab = reinterpret_cast<Value::Slab*>(contents - kUnit * storage.slabOffset);
    if (letGo(slab->holders)) ::operator delete(slab);
}

char* SlabAllocator::open() {
    // A slab whose contents are all gone is used anew: it is still in the caches.
    const bool isEmpty =
        slab_ != nullptr && slab_->holders.load(std::memory_order_acquire) == kHoldersAtOpening - takenCount_;
    if (!isEmpty) {
        void* const memory = ::operator new(size_);
        close();
        slab_ = static_cast<Value::Slab*>(memory);
    }
    new (slab_) Value::Slab{kHoldersAtOpening};
    takenCount_ = 0;
    free_ = reinterpret_cast<char*>(slab_) + kUnit;
    end_ = reinterpret_cast<char*>(slab_) + size_;
    return free_;
}

void SlabAllocator::close() noexcept {
    if (slab_ == nullptr) return;
    const std::uint32_t own = kHoldersAtOpening - takenCount_;
    if (slab_->holders.fetch_sub(own, std::memory_order_acq_rel) == own) ::operator delete(slab_);
}

void Value::release() noexcept {
    if (letGo(storage_.contents->holders)) destroy(storage_);
}

// Walks the tree of what dies with `dead` without stack or memory of its own: on the way down, the item that
// held the dying container keeps the storage of the container around it, and the count of holders of the
// dying container, which is 0, keeps the address of that item.
void Value::destroy(Storage dead) noexcept {
    const auto itemsOf = [](const Storage& storage) {
        return reinterpret_cast<Value*>(storage.contents + 1);
    };
    const auto itemCountOf = [](const Storage& storage) -> std::size_t {
        if (storage.kind == static_cast<std::uint8_t>(Type::array)) return storage.count;
        return storage.kind == static_cast<std::uint8_t>(Type::dictionary) ? 2 * std::size_t{storage.count}
                                                                           : 0;
    };

    dead.contents->holders.store(0, std::memory_order_relaxed);
    Value* item = itemsOf(dead);
    for (;;) {
        const Value* end = itemsOf(dead) + itemCountOf(dead);
        while (item != end) {
            if (!item->isCounted() || !letGo(item->storage_.contents->holders)) {
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
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the count of holders kept the address on the way down
        item = reinterpret_cast<Value*>(dead.contents->holders.load(std::memory_order_relaxed));
        freeContents(dead);
        if (item == nullptr) return;
        dead = item->storage_;
        ++item;
    }
}

// Reading
// ----------------------------------------------------------------------------------------------------

std::optional<std::int64_t> Value::integer() const noexcept {
    if (storage_.kind == static_cast<std::uint8_t>(Type::integer)) return storage_.integer;
    if (storage_.kind != static_cast<std::uint8_t>(Type::floating)) return std::nullopt;
    const double number = storage_.floating;
    if (!(number >= -0x1p63 && number < 0x1p63) || std::trunc(number) != number) return std::nullopt;
    return static_cast<std::int64_t>(number);
}

std::optional<std::uint64_t> Value::unsignedInteger() const noexcept {
    if (storage_.kind == static_cast<std::uint8_t>(Type::unsignedInteger)) return storage_.unsignedInteger;
    if (storage_.kind == static_cast<std::uint8_t>(Type::floating)) {
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
    if (key.size() > kShortStringCapacity) {
        for (const Entry& entry : entries) {
            if (entry.key.string() == key) return entry.value;
        }
        return kNothing;
    }
    const Value shortKey(key);  // short strings are equal where their bytes are, all unused ones being 0
    for (const Entry& entry : entries) {
        // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
        if (std::memcmp(&entry.key.storage_, &shortKey.storage_, sizeof(Storage)) == 0) return entry.value;
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
    std::vector<std::pair<const Value*, const Value*>> pairs{{&a, &b}};  // still to be compared
    while (!pairs.empty()) {
        const auto [left, right] = pairs.back();
        pairs.pop_back();
        if (left->isNumber() && right->isNumber()) {
            if (!areEqualNumbers(*left, *right)) return false;
            continue;
        }
        if (left->type() != right->type() || left->count() != right->count()) return false;
        switch (left->type()) {
            case Value::Type::boolean:
                if (left->boolean() != right->boolean()) return false;
                break;
            case Value::Type::string:
                if (left->string() != right->string()) return false;
                break;
            case Value::Type::date:
                if (left->date() != right->date()) return false;
                break;
            case Value::Type::object:
                if (left->object() != right->object()) return false;
                break;
            case Value::Type::array:
                if (left->items() == right->items()) break;
                for (std::size_t index = 0; index < left->count(); ++index)
                    pairs.emplace_back(&(*left)[index], &(*right)[index]);
                break;
            case Value::Type::dictionary:
                if (left->items() == right->items()) break;
                for (const auto& [key, value] : left->entries())
                    pairs.emplace_back(&value, &(*right)[*key.string()]);
                break;
            default:  // nothing and null have no contents, numbers were compared above
                break;
        }
    }
    return true;
}

}  // namespace zembra
