#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include <ZembraPlatform/ObjectRuntime.h>

/// Declared properties of model classes: `ZMB_PROPERTY` declares one, the class `Property` is what it holds
/// its value in and is read through. A property is as safe for threads as the object that it belongs to.
namespace zembra {

class PropertyHolder;
namespace detail {
Value& storageOf(PropertyHolder& holder) noexcept;
}  // namespace detail

// What properties are declared with
// --------------------------------------------------------------------------------------------------------

/// Tags that stand for the classes of strings, numbers (booleans included), dates, arrays and dictionaries in
/// declarations of properties. What such a property holds is a `Value`.
#define ZEMBRA_PROPERTY_TAG(Tag)                                                                     \
    struct ZEMBRA_EXPORT Tag {                                                                       \
        using ZembraClass = Tag;                                                                     \
        [[nodiscard]] static const ClassDescription& staticClass() noexcept {                        \
            static constexpr ClassDescription description{#Tag, &typeid(Tag), nullptr, {}, nullptr}; \
            return description;                                                                      \
        }                                                                                            \
    };
ZEMBRA_PROPERTY_TAG(NSString)
ZEMBRA_PROPERTY_TAG(NSNumber)
ZEMBRA_PROPERTY_TAG(NSDate)
ZEMBRA_PROPERTY_TAG(NSArray)
ZEMBRA_PROPERTY_TAG(NSDictionary)
#undef ZEMBRA_PROPERTY_TAG

/// The objects of class `Object` in an array, in order, each as a `std::shared_ptr<Object>`; whatever else
/// stands there is passed over. It reads the elements where they are: the array must outlive it.
template <class Object>
class ObjectRange {
public:
    class Iterator {
    public:
        using value_type = std::shared_ptr<Object>;
        using difference_type = std::ptrdiff_t;

        Iterator() = default;
        explicit Iterator(std::span<const Value> rest) : rest_(rest) { settle(); }

        const value_type& operator*() const noexcept { return object_; }
        const value_type* operator->() const noexcept { return &object_; }
        Iterator& operator++() {
            rest_ = rest_.subspan(1);
            settle();
            return *this;
        }
        Iterator operator++(int) {
            Iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const Iterator& other) const noexcept { return rest_.size() == other.rest_.size(); }
        bool operator==(std::default_sentinel_t) const noexcept { return rest_.empty(); }

    private:
        void settle() {
            for (object_ = nullptr; !rest_.empty(); rest_ = rest_.subspan(1)) {
                object_ = rest_.front().template as<Object>();
                if (object_) break;
            }
        }

        std::span<const Value> rest_;
        value_type object_;
    };

    explicit ObjectRange(std::span<const Value> elements) : elements_(elements) {}

    [[nodiscard]] Iterator begin() const { return Iterator(elements_); }
    [[nodiscard]] std::default_sentinel_t end() const noexcept { return {}; }
    [[nodiscard]] bool empty() const { return begin() == end(); }

private:
    std::span<const Value> elements_;
};

/// The objects of class `Object` among the elements of `array`, which must outlive the range.
template <class Object>
[[nodiscard]] ObjectRange<Object> objectsIn(const Value& array) {
    return ObjectRange<Object>(array.elements());
}
template <class Object>
ObjectRange<Object> objectsIn(Value&& array) = delete;

/// What every property of an object class has: it holds any value, whatever its declared class, and starts
/// with nothing. Copies share what they hold.
class PropertyHolder {
public:
    [[nodiscard]] const Value& value() const noexcept { return value_; }

protected:
    PropertyHolder() = default;

    Value value_;

    friend Value& detail::storageOf(PropertyHolder& holder) noexcept;
};

#define ZEMBRA_PROPERTY_ASSIGNMENT                 \
    Property() = default;                          \
    template <std::convertible_to<Value> NewValue> \
    Property& operator=(NewValue&& newValue) {     \
        value_ = std::forward<NewValue>(newValue); \
        return *this;                              \
    }

/// A property declared with a class. Besides its raw `value()` it has a typed reading, `get()`, which is
/// nothing where the value is of another class; this one is for data objects.
template <class Declared>
class Property : public PropertyHolder {
public:
    ZEMBRA_PROPERTY_ASSIGNMENT

    /// The object, or `nullptr`.
    [[nodiscard]] std::shared_ptr<Declared> get() const { return value_.template as<Declared>(); }

    /// Whether there is one; only then `->` and `*` may be used.
    [[nodiscard]] explicit operator bool() const { return get() != nullptr; }
    Declared* operator->() const { return get().get(); }
    Declared& operator*() const { return *get(); }
};

template <>
class Property<NSString> : public PropertyHolder {
public:
    ZEMBRA_PROPERTY_ASSIGNMENT

    /// The view ends with the property or its next assignment.
    [[nodiscard]] std::optional<std::string_view> get() const& noexcept { return value_.string(); }
    std::optional<std::string_view> get() && = delete;
};

template <>
class Property<NSNumber> : public PropertyHolder {
public:
    ZEMBRA_PROPERTY_ASSIGNMENT

    /// The number as a `Number`, nothing where it is not exactly one (2.5 is no `int`); any number is a
    /// floating one. A boolean is 0 or 1, and nothing else is a `bool`.
    template <class Number = double>
    requires std::is_arithmetic_v<Number>
    [[nodiscard]] std::optional<Number> get() const noexcept {
        const std::optional<bool> boolean = value_.boolean();
        if constexpr (std::same_as<Number, bool>) {
            return boolean;
        } else if (boolean) {
            return *boolean ? Number{1} : Number{0};
        } else if constexpr (std::floating_point<Number>) {
            if (const std::optional<double> number = value_.number()) return static_cast<Number>(*number);
        } else if (const std::optional<std::int64_t> integer = value_.integer()) {
            if (isWithin<Number>(*integer)) return static_cast<Number>(*integer);
        } else if (const std::optional<std::uint64_t> large = value_.unsignedInteger()) {
            if (isWithin<Number>(*large)) return static_cast<Number>(*large);
        }
        return std::nullopt;
    }

private:
    /// Like `std::in_range`, for the character types too.
    template <class Number>
    static constexpr bool isWithin(auto integer) noexcept {
        return std::cmp_greater_equal(integer, +std::numeric_limits<Number>::min()) &&
               std::cmp_less_equal(integer, +std::numeric_limits<Number>::max());
    }
};

template <>
class Property<NSDate> : public PropertyHolder {
public:
    ZEMBRA_PROPERTY_ASSIGNMENT

    [[nodiscard]] std::optional<Date> get() const noexcept { return value_.date(); }
};

template <>
class Property<NSArray> : public PropertyHolder {
public:
    ZEMBRA_PROPERTY_ASSIGNMENT

    /// The array; `elements()` of it may be walked.
    [[nodiscard]] Value get() const noexcept { return value_.isArray() ? value_ : Value(); }

    [[nodiscard]] std::span<const Value> elements() const noexcept { return value_.elements(); }

    /// The objects of class `Object` among the elements.
    template <class Object>
    [[nodiscard]] ObjectRange<Object> objects() const {
        return objectsIn<Object>(value_);
    }
};

template <>
class Property<NSDictionary> : public PropertyHolder {
public:
    ZEMBRA_PROPERTY_ASSIGNMENT

    [[nodiscard]] Value get() const noexcept { return value_.isDictionary() ? value_ : Value(); }

    /// The value under `key`, nothing where there is none.
    [[nodiscard]] const Value& operator[](std::string_view key) const noexcept { return value_[key]; }
};

#undef ZEMBRA_PROPERTY_ASSIGNMENT

// What the macros are made of
// --------------------------------------------------------------------------------------------------------

namespace detail {

/// Whether the class has a description of its own, not only its base's.
template <class Described>
concept HasOwnDescription = std::is_same_v<typename Described::ZembraClass, Described>;

inline Value& storageOf(PropertyHolder& holder) noexcept {
    return holder.value_;
}
inline Value& storageOf(Value& value) noexcept {
    return value;
}

template <class Scalar>
Value valueOf(Scalar scalar) noexcept {
    if constexpr (std::is_enum_v<Scalar>)
        return valueOf(static_cast<std::underlying_type_t<Scalar>>(scalar));
    else if constexpr (std::convertible_to<Scalar, Value> && std::is_arithmetic_v<Scalar>)
        return scalar;
    else
        return {};
}

/// The member that a property is: scalars and `Value`s are themselves.
template <class Declared>
using PropertyMember = std::conditional_t<std::is_class_v<Declared> && !std::is_same_v<Declared, Value>,
                                          Property<Declared>, Declared>;

/// The class that a property of type `Declared` is declared with.
template <class Declared>
const ClassDescription* classOfProperty() noexcept {
    if constexpr (std::is_scalar_v<Declared> || std::is_same_v<Declared, Value>) {
        return nullptr;
    } else {
        constexpr bool isDescribed = HasOwnDescription<Declared>;
        static_assert(
            isDescribed,
            "a property is a tag such as NSString, a Value, a scalar or a class that is complete here and "
            "has its own ZMB_DATA_OBJECT");
        if constexpr (isDescribed) return &Declared::staticClass();
    }
}

/// The function that makes an `Object`; `nullptr` where it has no public default constructor.
template <class Object>
constexpr auto creationOf() -> std::shared_ptr<NSObject> (*)() {
    if constexpr (!std::derived_from<Object, NSObject> || !std::is_default_constructible_v<Object>)
        return nullptr;
    else if constexpr (requires(Object & object) { object.weak_from_this(); })
        return [] { return std::shared_ptr<NSObject>(new Object); };
    else  // one instantiation of the constructor for all classes: compilers spend most of a class's time on
          // it
        return [] { return std::shared_ptr<NSObject>(static_cast<NSObject*>(new Object)); };
}

/// @cond
/// Counts properties: passing the highest number selects the overload of the last one declared.
template <std::size_t number>
struct PropertyNumber : PropertyNumber<number - 1> {
    static_assert(number <= 64,
                  "a class declares 64 properties at most; further ones belong into a base class");
};
template <>
struct PropertyNumber<0> {};
/// @endcond
using HighestPropertyNumber = PropertyNumber<64>;

/// What `ZMB_PROPERTY` states of the property with that number, beside its member.
template <std::size_t number>
struct PropertyDeclaration {
    static constexpr std::size_t kNumber = number;
    using Next = PropertyNumber<number + 1>;

    std::string_view name;
    const ClassDescription* (*declaredClass)() noexcept;
};
template <std::size_t number>
PropertyDeclaration<number> declarationOf(PropertyNumber<number>);

constexpr bool isASCII(std::string_view name) {
    for (const char character : name)
        if (static_cast<unsigned char>(character) >= 0x80) return false;
    return true;
}

}  // namespace detail
}  // namespace zembra

/// Declares a property, inside a class whose description `ZMB_DATA_OBJECT` makes. `Type` is one of
///   - `NSString`, `NSNumber`, `NSDate`, `NSArray`, `NSDictionary`: a `Property` of that tag;
///   - a data-object class, which must be complete where the source file ends: a `Property` of that class;
///   - `Value`: any object without a class;
///   - a scalar (number, boolean, enumeration): an ordinary member, zero at the start.
/// The property's name is written here and nowhere else.
#define ZMB_PROPERTY(Type, name)                                                                             \
    static_assert(::zembra::detail::isASCII(#name), "the name of a property must be ASCII");                 \
    using ZembraNumberOf_##name = decltype(zembraProperty(::zembra::detail::HighestPropertyNumber{}))::Next; \
    static constexpr auto zembraProperty(ZembraNumberOf_##name zembraNumber)                                 \
        ->decltype(::zembra::detail::declarationOf(zembraNumber)) {                                          \
        return {#name, &::zembra::detail::classOfProperty<Type>};                                            \
    }                                                                                                        \
    ::zembra::detail::PropertyMember<Type>& zembraMember(ZembraNumberOf_##name) noexcept {                   \
        static_assert(::std::is_same_v<decltype(*this), ZembraClass&>,                                       \
                      "a class with properties must start with ZMB_DATA_OBJECT(<its name>, <its base>)");    \
        return name;                                                                                         \
    }                                                                                                        \
    ::zembra::detail::PropertyMember<Type> name {}
