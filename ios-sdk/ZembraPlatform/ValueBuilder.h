#pragma once

#include <cassert>
#include <cstddef>
#include <memory>
#include <utility>

#include <ZembraPlatform/Value.h>

namespace zembra {

/// Makes arrays and dictionaries out of parts on a stack: the decoder's way to values. Parts are moved as
/// bytes, never copied. One thread.
class ValueBuilder {
public:
    ValueBuilder() = default;
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

    /// Pushes a copy of `value`, without an atomic write: only this thread holds its contents.
    void pushCopyOfUnshared(const Value& value) {
        push(value.storage_);
        if (!value.isCounted()) return;
        auto& holders = value.storage_.contents->holders;
        holders.store(holders.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] Value& operator[](std::size_t index) { return parts_[index]; }

    /// Replaces the parts from `start` on by one array of them. None is nothing.
    void makeArray(std::size_t start) {
        Value array = Value::arrayOfParts(parts_ + start, size_ - start);
        size_ = start;
        push(std::move(array));
    }

    /// Replaces the parts from `start` on, keys and values in turn, by one dictionary of them. The keys are
    /// distinct strings, no value is nothing.
    void makeDictionary(std::size_t start) {
        Value dictionary = Value::dictionaryOfParts(parts_ + start, (size_ - start) / 2);
        size_ = start;
        push(std::move(dictionary));
    }

    /// Takes the uppermost part off.
    [[nodiscard]] Value pop() {
        assert(size_ > 0);
        return std::move(parts_[--size_]);
    }

private:
    void grow();

    Value* parts_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace zembra
