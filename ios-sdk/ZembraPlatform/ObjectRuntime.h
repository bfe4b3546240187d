#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include <ZembraPlatform/Value.h>

/// Classes that know their declared properties: what a class is called, which properties it and its base
/// classes declare and with which class, and how to reach one by name. `ZMB_PROPERTY` declares a property;
/// `ZMB_DATA_OBJECT` (`<ZembraCoreSDK/QVDataObject.h>`) describes a class.
///
/// Descriptions are constants: nothing is registered, nothing is built at start-up, any thread may read them.
namespace zembra {

struct Class;
class PropertyHolder;

namespace detail {

Value* storageOfProperty(PropertyHolder& holder) noexcept;

/// The first sixteen bytes of a name, zeros behind its last: names are compared by words.
struct NameHead {
    std::uint64_t words[2] = {};  // the first byte lowest

    constexpr NameHead() noexcept = default;
    constexpr NameHead(std::uint64_t first, std::uint64_t second) noexcept : words{first, second} {}
    constexpr explicit NameHead(std::string_view name) noexcept {
        for (std::size_t index = 0; index < name.size() && index < sizeof words; ++index)
            words[index / 8] |= std::uint64_t{static_cast<unsigned char>(name[index])} << index % 8 * 8;
    }
    friend constexpr bool operator==(const NameHead&, const NameHead&) noexcept = default;
};

}  // namespace detail

/// A declared property of a class.
struct PropertyDescription {
    std::string_view name;

    /// The class that the property is declared with, or `nullptr`: scalars and plain `Value`s have none.
    const Class* (*declaredClass)() noexcept;

    /// Where an object of the class (or of one derived from it) holds the property; `nullptr` for scalars.
    Value* (*storage)(NSObject& object) noexcept;

    detail::NameHead head{name};
};

/// The description of a class. Each shared library that uses a class may have a description of its own, so
/// compare with `isSubclassOf`, never by address.
struct ZEMBRA_EXPORT Class {
    std::string_view name;  ///< Without namespaces.
    const std::type_info* type;
    const Class* (*superclass)() noexcept;            ///< `nullptr` where none is described.
    std::span<const PropertyDescription> properties;  ///< In order of declaration, without the superclass's.
    std::shared_ptr<NSObject> (*create)();            ///< A new object; `nullptr` where none can be made.

    /// Whether this is `other` or derives from it.
    [[nodiscard]] bool isSubclassOf(const Class& other) const noexcept {
        // Most classes that differ have names of different lengths; comparing types compares longer names.
        const bool isSame = this == &other || (name.size() == other.name.size() && *type == *other.type);
        return isSame || (superclass != nullptr && superclass()->isSubclassOf(other));
    }

    /// The property of that name on this class, else on the nearest class above it; `nullptr` where none
    /// declares one.
    [[nodiscard]] const PropertyDescription* property(std::string_view propertyName) const noexcept;
};

// What properties are declared with
// --------------------------------------------------------------------------------------------------------

/// Tags that stand for the classes of strings, numbers (booleans included), dates, arrays and dictionaries in
/// declarations of properties. What such a property holds is a `Value`.
#define ZEMBRA_PROPERTY_TAG(Tag)                                                          \
    struct ZEMBRA_EXPORT Tag {                                                            \
        using ZembraClass = Tag;                                                          \
        [[nodiscard]] static const Class& staticClass() noexcept {                        \
            static constexpr Class description{#Tag, &typeid(Tag), nullptr, {}, nullptr}; \
            return description;                                                           \
        }                                                                                 \
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

    friend Value* detail::storageOfProperty(PropertyHolder& holder) noexcept;
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
            if (std::in_range<Number>(*integer)) return static_cast<Number>(*integer);
        } else if (const std::optional<std::uint64_t> large = value_.unsignedInteger()) {
            if (std::in_range<Number>(*large)) return static_cast<Number>(*large);
        }
        return std::nullopt;
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

inline Value* storageOfProperty(PropertyHolder& holder) noexcept {
    return &holder.value_;
}
inline Value* storageOfProperty(Value& value) noexcept {
    return &value;
}
template <class Scalar>
requires std::is_scalar_v<Scalar> Value* storageOfProperty(Scalar&) noexcept {
    return nullptr;
}

/// The member that a property is: scalars and `Value`s are themselves.
template <class Declared>
using PropertyMember = std::conditional_t<std::is_class_v<Declared> && !std::is_same_v<Declared, Value>,
                                          Property<Declared>, Declared>;

/// The class that a property of type `Declared` is declared with.
template <class Declared>
const Class* classOfProperty() noexcept {
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

/// A new object of `size` bytes, made at a place that suits it, in one allocation with its owners' counts:
/// what `std::make_shared` does, without its templates for every class (they take most of the time to compile
/// one).
ZEMBRA_EXPORT std::shared_ptr<NSObject> makeObject(std::size_t size, NSObject* (*construct)(void* place));

/// The function that makes an `Object`; `nullptr` where it has no public default constructor.
template <class Object>
constexpr auto creationOf() -> std::shared_ptr<NSObject> (*)() {
    if constexpr (!std::derived_from<Object, NSObject> || !std::is_default_constructible_v<Object>) {
        return nullptr;
    } else if constexpr (alignof(Object) > __STDCPP_DEFAULT_NEW_ALIGNMENT__ ||
                         requires(Object & object) { object.weak_from_this(); }) {
        return []() -> std::shared_ptr<NSObject> { return std::make_shared<Object>(); };
    } else {
        return [] {
            return makeObject(sizeof(Object), [](void* place) -> NSObject* { return ::new (place) Object; });
        };
    }
}

/// @cond
/// Counts properties: of overloads that take numbers, a call with the highest number chooses the one with the
/// highest that is declared.
template <std::size_t number>
struct PropertyNumber : PropertyNumber<number - 1> {};
template <>
struct PropertyNumber<0> {};
/// @endcond
inline constexpr std::size_t kHighestPropertyNumber = 64;
using HighestPropertyNumber = PropertyNumber<kHighestPropertyNumber>;

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
#define ZMB_PROPERTY(Type, name)                                                                          \
    static_assert(::zembra::detail::isASCII(#name), "the name of a property must be ASCII");              \
    void zembraCheck_##name() {                                                                           \
        static_assert(::std::is_same_v<decltype(*this), ZembraClass&>,                                    \
                      "a class with properties must start with ZMB_DATA_OBJECT(<its name>, <its base>)"); \
    }                                                                                                     \
    enum : ::std::size_t {                                                                                \
        zembraNumber_##name = sizeof(zembraCount(::zembra::detail::HighestPropertyNumber{}))              \
    };                                                                                                    \
    static_assert(zembraNumber_##name <= ::zembra::detail::kHighestPropertyNumber,                        \
                  "a class declares 64 properties at most; further ones belong into a base class");       \
    static char(                                                                                          \
        &zembraCount(::zembra::detail::PropertyNumber<zembraNumber_##name>))[zembraNumber_##name + 1];    \
    template <class Self>                                                                                 \
    static ::zembra::Value* zembraStorage_##name(::zembra::NSObject& zembraObject) noexcept {             \
        return ::zembra::detail::storageOfProperty(static_cast<Self&>(zembraObject).name);                \
    }                                                                                                     \
    template <class Self>                                                                                 \
    static constexpr ::zembra::PropertyDescription zembraProperty(                                        \
        ::zembra::detail::PropertyNumber<zembraNumber_##name>) {                                          \
        return {#name, &::zembra::detail::classOfProperty<Type>, &zembraStorage_##name<Self>};            \
    }                                                                                                     \
    ::zembra::detail::PropertyMember<Type> name {}
