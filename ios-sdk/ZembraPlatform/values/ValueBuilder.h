#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

#include <ZembraPlatform/Value.h>

namespace zembra {

/// Memory for the contents of several values, which is freed when the last of them is gone. Values in a slab
/// may be let go on any thread; a value that is kept keeps its slab.
struct Value::Slab {
    std::atomic<std::uint32_t> holders;  // the contents in it, and more as long as an allocator adds some
};

/// Gives contents room in slabs, one slab after the other. One thread, but those that let go of the values.
class SlabAllocator {
public:
    /// Slabs of `size` bytes each, less than 64 KiB.
    explicit SlabAllocator(std::size_t size) : size_(size / kUnit * kUnit) {}
    SlabAllocator(const SlabAllocator&) = delete;
    SlabAllocator& operator=(const SlabAllocator&) = delete;
    ~SlabAllocator() { close(); }

    /// At least `size` free bytes in a row, `nullptr` if they are too many for a slab. They remain free until
    /// `take`.
    [[nodiscard]] char* room(std::size_t size) {
        if (size <= static_cast<std::size_t>(end_ - free_)) return free_;
        return size <= size_ / 4 ? open() : nullptr;
    }

    /// Takes `size` of the bytes that `room` gave. The result is what `Storage::slabOffset` asks for.
    [[nodiscard]] std::uint16_t take(std::size_t size) {
        const auto offset = static_cast<std::size_t>(free_ - reinterpret_cast<char*>(slab_));
        free_ += (size + kUnit - 1) / kUnit * kUnit;
        ++takenCount_;
        return static_cast<std::uint16_t>(offset / kUnit);
    }

    /// Gives back what `storage` took.
    static void release(const Value::Storage& storage) noexcept;

private:
    static constexpr std::size_t kUnit = 8;
    static constexpr std::uint32_t kHoldersAtOpening = 1U << 31;  // so no contents need to be added to them

    char* open();
    void close() noexcept;

    const std::size_t size_;
    Value::Slab* slab_ = nullptr;
    char* free_ = nullptr;
    char* end_ = nullptr;
    std::uint32_t takenCount_ = 0;
};

/// A string of at most `kShortStringCapacity` bytes; sixteen can be read at `characters`.
inline Value::Storage Value::shortString(const char* characters, std::size_t length) noexcept {
    // Copies as many bytes whatever the length is, which no processor foresees.
    static constexpr std::array<std::uint64_t, 4> onesThenZeros{~std::uint64_t{0}, ~std::uint64_t{0}, 0, 0};
    const char* const mask = reinterpret_cast<const char*>(onesThenZeros.data()) + sizeof(Storage) - length;
    std::uint64_t words[2];
    std::uint64_t masks[2];
    static_assert(sizeof words == sizeof(Storage));
    std::memcpy(words, characters, sizeof words);
    std::memcpy(masks, mask, sizeof masks);
    words[0] &= masks[0];
    words[1] &= masks[1];
    Storage storage;
    std::memcpy(static_cast<void*>(&storage), words, sizeof storage);
    storage.shortStringLength = static_cast<std::uint8_t>(length);
    storage.kind = static_cast<std::uint8_t>(Type::string);
    return storage;
}

/// Makes arrays and dictionaries out of parts on a stack: the decoder's way to values. Parts are moved as
/// bytes, never copied. One thread.
class ValueBuilder {
public:
    /// For the values of a text of `textSize` bytes.
    explicit ValueBuilder(std::size_t textSize)
        : slabs_(std::min(textSize, kSlabSize)), dictionarySlabs_(std::min(textSize, kDictionarySlabSize)) {}
    ValueBuilder(const ValueBuilder&) = delete;
    ValueBuilder& operator=(const ValueBuilder&) = delete;
    ~ValueBuilder() {
        std::destroy_n(parts_, size_);
        if (capacity_ != 0) std::allocator<Value>().deallocate(parts_, capacity_);
    }

    /// Puts `Value(arguments...)` on the stack.
    template <typename... Arguments>
    void push(Arguments&&... arguments) {
        if (size_ == capacity_) grow();
        new (parts_ + size_) Value(std::forward<Arguments>(arguments)...);
        ++size_;
    }

    /// Room for the characters of one string, of `size` bytes, 16 or more; `nullptr` where that is too
    /// much for a slab.
    [[nodiscard]] char* roomForString(std::size_t size) {
        char* const room = slabs_.room(sizeof(Value::Contents) + size);
        return room == nullptr ? nullptr : room + sizeof(Value::Contents);
    }

    /// Pushes the string that stands at the start of the room that was given last.
    void pushStringInRoom(char* characters, std::size_t length) {
        if (length <= Value::kShortStringCapacity) {
            push(Value::shortString(characters, length));
            return;
        }
        Value::Storage storage;
        storage.contents = new (characters - sizeof(Value::Contents)) Value::Contents{1};
        storage.count = static_cast<std::uint32_t>(length);
        storage.slabOffset = slabs_.take(sizeof(Value::Contents) + length);
        storage.kind = Value::kLongString;
        push(storage);
    }

    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] Value& operator[](std::size_t index) { return parts_[index]; }

    /// Replaces the parts from `start` on by one array of them. None is nothing.
    void makeArray(std::size_t start) {
        Value array = Value::arrayOfParts(parts_ + start, size_ - start, &slabs_);
        size_ = start;
        push(std::move(array));
    }

    /// Replaces the parts from `start` on, keys and values in turn, by one dictionary of them. The keys are
    /// distinct strings, no value is nothing.
    void makeDictionary(std::size_t start) {
        Value dictionary = Value::dictionaryOfParts(parts_ + start, (size_ - start) / 2, &dictionarySlabs_);
        size_ = start;
        push(std::move(dictionary));
    }

    /// Takes the uppermost part off.
    [[nodiscard]] Value pop() {
        assert(size_ > 0);
        return std::move(parts_[--size_]);
    }

private:
    // What is kept of a document are strings and arrays, rather than the dictionaries around them.
    static constexpr std::size_t kSlabSize = 2048;
    static constexpr std::size_t kDictionarySlabSize = 4096;

    void grow();

    SlabAllocator slabs_;
    SlabAllocator dictionarySlabs_;
    Value* parts_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace zembra
