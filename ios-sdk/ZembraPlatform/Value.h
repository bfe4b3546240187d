#pragma once

#include <array>
#include <chrono>
#include <compare>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <ZembraPlatform/NSObject.h>

namespace zembra {

/// A point in time, in microseconds since 1970-01-01T00:00:00Z.
using Date = std::chrono::sys_time<std::chrono::microseconds>;

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

    Value() noexcept = default;
    Value(std::nullptr_t) = delete;  // nothing is `{}`, null is `Value::null()`
    Value(std::same_as<bool> auto boolean) noexcept;
    template <std::integral Integer>
    requires(!std::same_as<Integer, bool> && sizeof(Integer) <= sizeof(std::int64_t)) Value(Integer number)
    noexcept;
    Value(std::floating_point auto number) noexcept;
    Value(std::string_view string);
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

    Value(const Value& other) noexcept;
    Value(Value&& other) noexcept;  // leaves nothing behind
    Value& operator=(const Value& other) noexcept;
    Value& operator=(Value&& other) noexcept;
    ~Value();

    // Asking what a value is
    // ---------------------------------------------------------------------------------

    [[nodiscard]] Type type() const noexcept;
    [[nodiscard]] bool isNothing() const noexcept { return type() == Type::nothing; }
    [[nodiscard]] bool isNull() const noexcept { return type() == Type::null; }
    [[nodiscard]] bool isBoolean() const noexcept { return type() == Type::boolean; }
    [[nodiscard]] bool isNumber() const noexcept;
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
    [[nodiscard]] const Value& operator[](std::size_t index) const noexcept;
    const Value& operator[](int index) const noexcept { return (*this)[static_cast<std::size_t>(index)]; }

    // As text
    // ------------------------------------------------------------------------------------------------

    /// The textual form, used wherever text is needed of something that may not be a string: a string is
    /// itself, an object its class name, nothing the empty text, anything else its JSON text.
    [[nodiscard]] std::string text() const;

    /// Equal type and contents; dictionaries regardless of order, numbers by their value whatever their form,
    /// objects by identity.
    ZEMBRA_EXPORT friend bool operator==(const Value& a, const Value& b) noexcept;

    /// For people (debugging, test output): JSON text, with nothing as `(nothing)`, an object as
    /// `<ClassName>`.
    ZEMBRA_EXPORT friend std::ostream& operator<<(std::ostream& stream, const Value& value);

private:
    // to be laid out: 16 bytes
};

/// One entry of a dictionary. The key of an entry inside a dictionary is always a string.
struct Value::Entry {
    Value key;
    Value value;
};

}  // namespace zembra
