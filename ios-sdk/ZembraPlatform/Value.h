#pragma once

// `Value`, the one type for everything that JSON, properties and user information can hold. The whole SDK and
// its hosts use it, on any thread.

#include <atomic>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ZembraPlatform/NSObject.h>

namespace zembra {

/// A point in time, in microseconds since 1970-01-01T00:00:00Z.
using Date = std::chrono::sys_time<std::chrono::microseconds>;

/// A type of whole numbers of at most 64 bits.
template <typename T>
concept WholeNumber = std::integral<T> && !std::same_as<T, bool> && sizeof(T) <= sizeof(std::int64_t);

/// A reference to any object: what JSON decodes to, what properties hold, what an error's user information
/// maps to, what the two credentials are.
///
/// A `Value` is nothing (the default), null, a boolean, a number, a string, a date, an array, a dictionary or
/// an `NSObject`. Nothing ("there is no value") and null ("there is one, JSON's null") are different
/// everywhere.
///
/// Values are immutable; only assignment replaces one as a whole. Copies are cheap and share their contents.
/// Distinct `Value`s may be used from any threads at once, also where they share contents; an object inside
/// is as safe as its class says.
///
/// Reading is total: asked for something that it is not, a value answers "no" (`std::nullopt`, `nullptr`, an
/// empty span, nothing), never with undefined behaviour. A conversion never takes place, save between forms
/// of number.
///
/// Arrays and dictionaries may be nested to any depth: nothing here uses stack in proportion to it. A string
/// has fewer than 2^32 bytes, an array or a dictionary fewer than 2^32 items: what would make a larger one
/// throws `std::length_error`.
class ZEMBRA_EXPORT Value {
public:
    enum class Type : std::uint8_t {
        nothing,
        null,
        boolean,
        integer,          ///< A whole number within `std::int64_t`.
        unsignedInteger,  ///< A whole number above `std::int64_t`'s largest, within `std::uint64_t`.
        floating,
        string,
        date,
        array,
        dictionary,
        object,
    };
    struct Entry;

    // Making values
    // ------------------------------------------------------------------------------------------

    constexpr Value() noexcept = default;
    Value(std::nullptr_t) = delete;  // nothing is `{}`, null is `Value::null()`
    Value(std::same_as<bool> auto boolean) noexcept;
    Value(WholeNumber auto number) noexcept;
    Value(std::floating_point auto number) noexcept;
    Value(std::string_view string);  // bytes of any kind, zero and malformed UTF-8 included
    Value(const char* string) : Value(std::string_view(string)) {}
    Value(const std::string& string) : Value(std::string_view(string)) {}
    Value(Date date) noexcept;

    /// The object itself: `as<T>()` gives back this very pointer, control block included. `nullptr` makes
    /// nothing.
    template <std::derived_from<NSObject> Object>
    Value(std::shared_ptr<Object> object) : Value(std::shared_ptr<NSObject>(std::move(object))) {}
    Value(std::shared_ptr<NSObject> object);

    [[nodiscard]] static Value null() noexcept;

    /// An array of the elements in order. No array holds nothing: such elements are left out.
    [[nodiscard]] static Value array(std::vector<Value> elements);
    [[nodiscard]] static Value array(std::initializer_list<Value> elements);

    /// A dictionary of the entries in order. A key that comes again replaces the earlier value in its place.
    /// No dictionary holds nothing: an entry whose value is nothing is left out (and takes an earlier one
    /// with it). The same holds for an entry whose key is no string.
    [[nodiscard]] static Value dictionary(std::vector<Entry> entries);
    [[nodiscard]] static Value dictionary(std::initializer_list<Entry> entries);

    Value(const Value& other) noexcept : storage_(other.storage_) { retain(); }
    Value(Value&& other) noexcept : storage_(other.storage_) { other.storage_ = {}; }  // leaves nothing
    Value& operator=(Value other) noexcept {
        swap(other);
        return *this;
    }
    constexpr ~Value() {
        if (hasContents()) release();
    }
    void swap(Value& other) noexcept { std::swap(storage_, other.storage_); }

    // Asking what a value is
    // ---------------------------------------------------------------------------------

    [[nodiscard]] Type type() const noexcept { return storage_.type; }
    [[nodiscard]] bool isNothing() const noexcept { return type() == Type::nothing; }
    [[nodiscard]] bool isNull() const noexcept { return type() == Type::null; }
    [[nodiscard]] bool isBoolean() const noexcept { return type() == Type::boolean; }
    [[nodiscard]] bool isNumber() const noexcept {
        return type() == Type::integer || type() == Type::unsignedInteger || type() == Type::floating;
    }
    [[nodiscard]] bool isString() const noexcept { return type() == Type::string; }
    [[nodiscard]] bool isDate() const noexcept { return type() == Type::date; }
    [[nodiscard]] bool isArray() const noexcept { return type() == Type::array; }
    [[nodiscard]] bool isDictionary() const noexcept { return type() == Type::dictionary; }
    [[nodiscard]] bool isObject() const noexcept { return type() == Type::object; }

    // Reading
    // ------------------------------------------------------------------------------------------------

    [[nodiscard]] std::optional<bool> boolean() const noexcept;

    /// A number that is whole and within `std::int64_t` (2.0 is 2; 2.5 and 1e300 are not).
    [[nodiscard]] std::optional<std::int64_t> integer() const noexcept;

    /// A number that is whole and within `std::uint64_t`.
    [[nodiscard]] std::optional<std::uint64_t> unsignedInteger() const noexcept;

    /// Any number, rounded where a `double` cannot hold it.
    [[nodiscard]] std::optional<double> number() const noexcept;

    /// The string; the view ends with this very `Value` (short strings live inside it).
    [[nodiscard]] std::optional<std::string_view> string() const& noexcept;
    std::optional<std::string_view> string() && = delete;

    [[nodiscard]] std::optional<Date> date() const noexcept;

    /// The object, or `nullptr` where there is none or it is no `Object`.
    template <std::derived_from<NSObject> Object = NSObject>
    [[nodiscard]] std::shared_ptr<Object> as() const;

    /// The elements of an array; the entries of a dictionary, each key once. Empty for everything else. The
    /// view lives as long as a copy of this value does.
    [[nodiscard]] std::span<const Value> elements() const noexcept;
    [[nodiscard]] std::span<const Entry> entries() const noexcept;

    /// The number of elements or entries, 0 for everything else.
    [[nodiscard]] std::size_t count() const noexcept;

    /// The value under `key` in a dictionary, nothing where there is none. Large dictionaries have an index.
    [[nodiscard]] const Value& operator[](std::string_view key) const noexcept;

    /// Element `index` of an array, nothing where there is none.
    [[nodiscard]] const Value& operator[](std::integral auto index) const noexcept;

    /// Element `index` of an array, the value of entry `index` of a dictionary, nothing where there is none.
    /// Where nobody else holds the array or dictionary, the element is moved out and leaves nothing in its
    /// place (null stays null); else it is copied. This is for consuming a value that is let go afterwards.
    [[nodiscard]] Value takeValueAt(std::size_t index) noexcept;

    // As text
    // ------------------------------------------------------------------------------------------------

    /// The textual form, used wherever text is needed of something that may not be a string: a string is
    /// itself, an object its class name, nothing the empty text, anything else its JSON text as
    /// `NSJSONSerialization` writes it.
    [[nodiscard]] std::string text() const;

    /// Equal type and contents; dictionaries regardless of order, numbers by their value whatever their form
    /// (a NaN equals a NaN), objects by identity.
    ZEMBRA_EXPORT friend bool operator==(const Value& a, const Value& b);

    /// For people (debugging, test output): JSON text, with nothing as `(nothing)`, an object as
    /// `<ClassName>`, and `...` for what lies more than 512 levels deep.
    ZEMBRA_EXPORT friend std::ostream& operator<<(std::ostream& stream, const Value& value);

private:
    friend class ValueBuilder;

    /// What strings beyond fourteen bytes, arrays, dictionaries and objects have in memory of their own: the
    /// number of their holders, then the characters, the items or the `std::shared_ptr`.
    struct alignas(std::int64_t) Contents {
        std::atomic<std::uintptr_t> holders;
    };
    static constexpr std::size_t kShortStringCapacity = 14;
    static constexpr std::uint8_t kHasContents = 0xFF;
    struct Storage {
        union {  // the bytes of a short string start here
            std::int64_t integer = 0;
            std::uint64_t unsignedInteger;
            double floating;
            bool boolean;
            Contents* contents;
        };
        std::uint32_t count = 0;  // of the characters or items in `contents`
        std::uint16_t unused = 0;
        std::uint8_t shortStringLength = 0;  // or `kHasContents`
        Type type = Type::nothing;
    };

    [[nodiscard]] constexpr bool hasContents() const noexcept {
        return storage_.shortStringLength == kHasContents;
    }
    void retain() const noexcept {
        if (hasContents()) storage_.contents->holders.fetch_add(1, std::memory_order_relaxed);
    }
    void release() noexcept;
    void allocate(Type type, std::size_t count, std::size_t byteCount);
    static void freeContents(const Storage& storage) noexcept;
    static void destroy(Storage dead) noexcept;

    [[nodiscard]] Value* items() const noexcept { return reinterpret_cast<Value*>(storage_.contents + 1); }
    [[nodiscard]] const std::shared_ptr<NSObject>& object() const noexcept;
    [[nodiscard]] const Value& elementAt(std::size_t index) const noexcept;

    Storage storage_;
};

/// One entry of a dictionary. The key of an entry inside a dictionary is always a string.
struct Value::Entry {
    Value key;
    Value value;
};

// Implementation of what is inline
// ----------------------------------------------------------------------------------------------------

Value::Value(std::same_as<bool> auto boolean) noexcept {
    storage_.boolean = boolean;
    storage_.type = Type::boolean;
}

Value::Value(WholeNumber auto number) noexcept {
    if (std::in_range<std::int64_t>(+number)) {
        storage_.integer = static_cast<std::int64_t>(number);
        storage_.type = Type::integer;
    } else {
        storage_.unsignedInteger = static_cast<std::uint64_t>(number);
        storage_.type = Type::unsignedInteger;
    }
}

Value::Value(std::floating_point auto number) noexcept {
    storage_.floating = static_cast<double>(number);
    storage_.type = Type::floating;
}

inline std::optional<std::string_view> Value::string() const& noexcept {
    if (!isString()) return std::nullopt;
    if (hasContents())
        return std::string_view(reinterpret_cast<const char*>(storage_.contents + 1), storage_.count);
    return std::string_view(reinterpret_cast<const char*>(&storage_), storage_.shortStringLength);
}

template <std::derived_from<NSObject> Object>
std::shared_ptr<Object> Value::as() const {
    if (!isObject()) return nullptr;
    if constexpr (std::same_as<Object, NSObject>) return object();
    return std::dynamic_pointer_cast<Object>(object());
}

inline std::span<const Value> Value::elements() const noexcept {
    return isArray() ? std::span<const Value>(items(), storage_.count) : std::span<const Value>();
}

inline std::span<const Value::Entry> Value::entries() const noexcept {
    if (!isDictionary()) return {};
    return {reinterpret_cast<const Entry*>(items()), storage_.count};
}

inline std::size_t Value::count() const noexcept {
    return isArray() || isDictionary() ? storage_.count : 0;
}

const Value& Value::operator[](std::integral auto index) const noexcept {
    return elementAt(static_cast<std::size_t>(index));
}

inline Value Value::takeValueAt(std::size_t index) noexcept {
    if (index >= count()) return {};
    Value& item = items()[isArray() ? index : 2 * index + 1];
    const bool isOnlyHolder = storage_.contents->holders.load(std::memory_order_acquire) == 1;
    return isOnlyHolder && !item.isNull() ? std::move(item) : item;
}

}  // namespace zembra
