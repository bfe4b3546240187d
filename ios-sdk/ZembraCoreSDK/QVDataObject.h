#pragma once

#ifndef __cpp_rtti
#error "data objects need run-time types: compile without -fno-rtti"
#include <the_error_above_says_why>  // Ends the compilation there.
#endif

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include <ZembraPlatform/Property.h>

/// Model objects that fill themselves from decoded JSON.
///
/// A model class derives from `QVDataObject`, starts with `ZMB_DATA_OBJECT` and declares its properties with
/// `ZMB_PROPERTY`:
///
///     class Place : public zembra::QVDataObject {
///         ZMB_DATA_OBJECT(Place, zembra::QVDataObject)
///
///     public:
///         ZMB_PROPERTY(zembra::NSString, displayName);  // filled from display_name or displayName
///         ZMB_PROPERTY(Owner, ownerInfo);               // another model class
///     };
///
///     const auto place = Place::objectWithUntrustedJSON(json);  // from a server; objectWithJSON if screened
///
/// The mapping reports no errors: it skips keys that it cannot place and assigns what it gets. Nothing here
/// locks; objects may be used like any other C++ objects.
namespace zembra {

class NSDateFormatter;
class QVDataObject;

// From keys to property names
// --------------------------------------------------------------------------------------------------------

/// Whether `byte` is an ASCII uppercase letter, 'A' to 'Z'.
extern "C" ZEMBRA_EXPORT bool IsUppercase(const char& byte) noexcept;

/// Whether `byte` is an ASCII lowercase letter, 'a' to 'z'.
extern "C" ZEMBRA_EXPORT bool IsLowercase(const char& byte) noexcept;

/// The camelCase form of a key: `account_id` gives `accountId`. Every byte that is no ASCII letter is a
/// separator: it is dropped, and the byte after it is kept, an ASCII lowercase letter raised. That holds for
/// digits too (`video_720p` gives `video70p`), and for the bytes of other characters: of a string of n UTF-16
/// units, the first n bytes are read. The result ends before its first zero byte.
///
/// `std::nullopt` where `string` or the result is not well-formed UTF-8. A string that `camelizationEnds` is
/// false for never finishes converting: the process ends in `std::terminate`, whose handler finds a
/// `std::logic_error` that says so as the current exception.
[[nodiscard]] ZEMBRA_EXPORT std::optional<std::string> camelizedString(std::string_view string);

/// Whether the conversion of `string` ends; if not, it stands on a separator at its end (`name_`, `line1`).
[[nodiscard]] ZEMBRA_EXPORT bool camelizationEnds(std::string_view string) noexcept;

/// `json` without the dictionary entries, at any depth, whose keys never finish converting. Whatever a server
/// sends goes through this before it goes into a data object, as `objectWithUntrustedJSON` has it.
/// Dictionaries and arrays without such keys are shared with the result; where there are none at all, the
/// result is `json` itself.
[[nodiscard]] ZEMBRA_EXPORT Value withoutEndlessKeys(Value json);

// Data objects
// --------------------------------------------------------------------------------------------------------

/// The description of a data-object class, with the hooks that the class offers.
struct DataObjectDescription : ClassDescription {
    using ArrayHook = Value (*)(QVDataObject& object, std::string_view key, const Value& values);
    using DateFormatterHook = std::shared_ptr<const NSDateFormatter> (*)(QVDataObject& object);

    constexpr DataObjectDescription(const ClassDescription& cls, ArrayHook arrayHook,
                                    DateFormatterHook dateFormatterHook, bool overridesMapping)
        : ClassDescription(cls),
          arrayPropertyForKey(arrayHook),
          dateFormatter(dateFormatterHook),
          overridesMapping_(overridesMapping) {}

    ArrayHook arrayPropertyForKey;    ///< `nullptr` where the class has no such hook.
    DateFormatterHook dateFormatter;  ///< The same.

private:
    friend class QVDataObject;

    /// Whether the class, or a described one above it, overrides `dataObjectClassForKey` or
    /// `setPropertyValue`.
    bool overridesMapping_;
};

namespace detail {

/// Asks which described class is the nearest above `Below`: each described class offers an overload of
/// `zembraClassAbove` that takes a pointer to it, for all classes but itself.
template <class Below>
struct AskedFor {};
template <class Below>
void zembraClassAbove(const void*, AskedFor<Below>);

/// Whether `Base` is the nearest described class above `Below`.
template <class Below, class Base>
inline constexpr bool derivesFrom =
    std::is_same_v<decltype(zembraClassAbove(static_cast<const Below*>(nullptr), AskedFor<Below>{})),
                   std::type_identity<Base>>;

}  // namespace detail

/// The base class of model objects. It has no fields of its own. Objects copy and move like ordinary values;
/// copies share what their properties hold.
///
/// A derived class may offer two hooks, as ordinary functions of any access, its own or a base class's:
///
///     zembra::Value arrayPropertyForKey(std::string_view key, const zembra::Value& values);
///     std::shared_ptr<const zembra::NSDateFormatter> dateFormatter() const;
///
/// The first replaces an array that came for the property `key` (a view for the length of the call), unless
/// the property's class is a data-object class; what is no array counts as an empty one. The second is asked
/// once for every string that meets a date property. They run on the caller's thread, inside the call.
///
/// A derived class may override the three virtual operations. An override of the last two in a class without
/// `ZMB_DATA_OBJECT` is not seen by the mapping where a class with that line, below it, names the root's
/// operation again (`using QVDataObject::setPropertyValue`).
class ZEMBRA_EXPORT QVDataObject : public NSObject {
public:
    QVDataObject() = default;
    ~QVDataObject() override;

    /// Fills the properties from `json` and returns true; false where `json` is no dictionary, and then the
    /// object is to be dropped. Given away as the only reference, `json` is consumed instead of copied from.
    ///
    /// For each entry, in the dictionary's order: the key is camelized; skipped are the names `id`, `_id` and
    /// `description`, names under which (as they are now, camelized) the dictionary holds null, and names
    /// that `dataObjectClassForKey` has no class for; the rest goes through `setPropertyValue`. Data objects
    /// inside each other use stack in proportion to their depth, which decoded JSON bounds.
    virtual bool initWithJSON(Value json);

    /// The class with which the object's class or a base class declares the property `key`; `nullptr` where
    /// there is no such property, or it is a scalar or a plain `Value`.
    [[nodiscard]] virtual const ClassDescription* dataObjectClassForKey(std::string_view key) const;

    /// Converts `value` as property class `cls` asks and assigns it to the property `key`; a name that is not
    /// declared, or a scalar's, is ignored. The first that holds decides what is assigned:
    ///   - `cls` is a data-object class: a new object of it, filled by `initWithJSON`, or nothing;
    ///   - `value` is an array: what the hook `arrayPropertyForKey` makes of it, without one the array
    ///   itself;
    ///   - `cls` is `NSDate` and `value` a string: the date that the hook's formatter reads, or nothing;
    ///   - `value` unchanged, null included, whether it fits `cls` or not.
    virtual void setPropertyValue(Value value, std::string_view key, const ClassDescription& cls);

    /// The description of this very class.
    [[nodiscard]] static const ClassDescription& staticClass() noexcept;

    [[nodiscard]] const DataObjectDescription* classDescription() const noexcept override;

    /// A new object of class `cls` filled from `json`; `nullptr` where `initWithJSON` returns false or `cls`
    /// is no data-object class that objects can be made of.
    [[nodiscard]] static std::shared_ptr<QVDataObject> objectWithJSON(const ClassDescription& cls,
                                                                      Value json);

    // Where the chains of `ZMB_DATA_OBJECT` and `ZMB_PROPERTY` start.
    using ZembraClass = QVDataObject;
    template <class Below>
    friend std::type_identity<QVDataObject> zembraClassAbove(const QVDataObject*, detail::AskedFor<Below>);
    static detail::PropertyDeclaration<0> zembraProperty(detail::PropertyNumber<0>);

protected:
    QVDataObject(const QVDataObject&) = default;
    QVDataObject(QVDataObject&&) = default;
    QVDataObject& operator=(const QVDataObject&) = default;
    QVDataObject& operator=(QVDataObject&&) = default;
};

/// A new `Object` filled from `json`, or `nullptr`.
template <std::derived_from<QVDataObject> Object>
[[nodiscard]] std::shared_ptr<Object> objectWithJSON(Value json) {
    static_assert(detail::HasOwnDescription<Object>,
                  "a class whose objects the mapping makes must start with ZMB_DATA_OBJECT");
    if constexpr (detail::HasOwnDescription<Object>)
        return std::static_pointer_cast<Object>(
            QVDataObject::objectWithJSON(Object::staticClass(), std::move(json)));
}

/// One new `Object` for each dictionary in `array`, in order; other elements, and dictionaries that
/// `initWithJSON` refuses, are passed over. `std::nullopt` where `array` is nothing.
template <std::derived_from<QVDataObject> Object>
[[nodiscard]] std::optional<std::vector<std::shared_ptr<Object>>> objectsWithArrayOfJSON(Value array) {
    if (array.isNothing()) return std::nullopt;
    std::vector<std::shared_ptr<Object>> objects;
    const std::size_t count = array.elements().size();
    objects.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        if (!array[index].isDictionary()) continue;
        if (auto object = objectWithJSON<Object>(array.takeValueAt(index)))
            objects.push_back(std::move(object));
    }
    return objects;
}

/// The same, of JSON from a server or a file: screened by `withoutEndlessKeys` first.
template <std::derived_from<QVDataObject> Object>
[[nodiscard]] std::shared_ptr<Object> objectWithUntrustedJSON(Value json) {
    return objectWithJSON<Object>(withoutEndlessKeys(std::move(json)));
}
template <std::derived_from<QVDataObject> Object>
[[nodiscard]] std::optional<std::vector<std::shared_ptr<Object>>> objectsWithArrayOfUntrustedJSON(
    Value array) {
    return objectsWithArrayOfJSON<Object>(withoutEndlessKeys(std::move(array)));
}

/// The objects as an array; `std::nullopt` gives nothing. With `objectsWithArrayOfJSON` it is what the hook
/// `arrayPropertyForKey` returns for an array of data objects.
template <class Object>
[[nodiscard]] Value arrayWithObjects(std::optional<std::vector<std::shared_ptr<Object>>> objects) {
    if (!objects) return {};
    return Value::array(
        std::vector<Value>(std::move_iterator(objects->begin()), std::move_iterator(objects->end())));
}
template <class Object>
[[nodiscard]] Value arrayWithObjects(std::vector<std::shared_ptr<Object>> objects) {
    return arrayWithObjects(std::optional(std::move(objects)));
}

namespace detail {

/// `Base` as `ZMB_DATA_OBJECT` names it; a wrong one, which is reported elsewhere, counts as the root.
template <class Base>
using BaseOrRoot =
    std::conditional_t<std::is_base_of_v<QVDataObject, Base> && HasOwnDescription<Base>, Base, QVDataObject>;

/// Describes a data-object class from what `ZMB_DATA_OBJECT` and `ZMB_PROPERTY` put into it. Each described
/// class befriends it, so hooks and properties count whatever their access.
template <class Self>
struct DataObjectAccess {
    template <class Base>
    static const DataObjectDescription& description() noexcept {
        static_assert(derivesFrom<Self, Base>,
                      "ZMB_DATA_OBJECT must name the data-object class that this one derives from");
        static constexpr DataObjectDescription description{
            {Self::zembraName, &typeid(Self), &classOfProperty<typename Self::ZembraBase>, properties,
             creationOf<Self>()},
            arrayHook(),
            dateFormatterHook(),
            overridesMapping()};
        return description;
    }

    /// Overrides that cannot be named, since they are private or overloaded, count too.
    static constexpr bool overridesMapping() {
        if constexpr (std::is_same_v<Self, QVDataObject>) {
            return false;
        } else {
            constexpr bool namesThoseOfTheRoot = requires {
                requires std::is_same_v<decltype(&Self::dataObjectClassForKey),
                                        decltype(&QVDataObject::dataObjectClassForKey)>;
                requires std::is_same_v<decltype(&Self::setPropertyValue),
                                        decltype(&QVDataObject::setPropertyValue)>;
            };
            return !namesThoseOfTheRoot || DataObjectAccess<typename Self::ZembraBase>::overridesMapping();
        }
    }

private:
    static constexpr std::size_t kPropertyCount =
        decltype(Self::zembraProperty(HighestPropertyNumber{}))::kNumber;

    static constexpr DataObjectDescription::ArrayHook arrayHook() {
        if constexpr (requires(Self & object, std::string_view key, const Value& values) {
                          { object.arrayPropertyForKey(key, values) } -> std::same_as<Value>;
                      }) {
            return [](QVDataObject& object, std::string_view key, const Value& values) {
                return static_cast<Self&>(object).arrayPropertyForKey(key, values);
            };
        } else {
            static_assert(
                !requires { &Self::arrayPropertyForKey; },
                "the hook is: zembra::Value arrayPropertyForKey(std::string_view key, "
                "const zembra::Value& values)");
            return nullptr;
        }
    }

    static constexpr DataObjectDescription::DateFormatterHook dateFormatterHook() {
        using Formatter = std::shared_ptr<const NSDateFormatter>;
        if constexpr (requires(Self & object) {
                          { object.dateFormatter() } -> std::convertible_to<Formatter>;
                      }) {
            return
                [](QVDataObject& object) -> Formatter { return static_cast<Self&>(object).dateFormatter(); };
        } else {
            static_assert(
                !requires { &Self::dateFormatter; },
                "the hook is: std::shared_ptr<const zembra::NSDateFormatter> dateFormatter() const");
            return nullptr;
        }
    }

    template <std::size_t number>
    static Value* storage(NSObject& object) noexcept {
        return &storageOf(static_cast<Self&>(object).zembraMember(PropertyNumber<number>{}));
    }
    template <std::size_t number>
    static Value scalar(const NSObject& object) noexcept {
        return valueOf(
            const_cast<Self&>(static_cast<const Self&>(object)).zembraMember(PropertyNumber<number>{}));
    }

    template <std::size_t number>
    static constexpr PropertyDescription property() {
        constexpr PropertyDeclaration<number> declared = Self::zembraProperty(PropertyNumber<number>{});
        using Member =
            std::remove_reference_t<decltype(std::declval<Self&>().zembraMember(PropertyNumber<number>{}))>;
        if constexpr (std::is_scalar_v<Member>)
            return {declared.name, declared.declaredClass, nullptr, &scalar<number>};
        else
            return {declared.name, declared.declaredClass, &storage<number>, nullptr};
    }

    static constexpr std::array<PropertyDescription, kPropertyCount> properties =
        []<std::size_t... index>(std::index_sequence<index...>) {
        return std::array<PropertyDescription, kPropertyCount>{{property<index + 1>()...}};
    }
    (std::make_index_sequence<kPropertyCount>{});
};

}  // namespace detail
}  // namespace zembra

/// Makes a class a data-object class: describes it, with the properties that `ZMB_PROPERTY` declares after
/// this line. `Base` is the class that it derives from, `QVDataObject` or another data-object class. Objects
/// can be made of a class with a public default constructor. The line ends in `private:`.
#define ZMB_DATA_OBJECT(ClassName, Base)                                                                   \
public:                                                                                                    \
    using ZembraClass = ClassName;                                                                         \
    using ZembraBase = ::zembra::detail::BaseOrRoot<Base>;                                                 \
    template <class ZembraBelow>                                                                           \
    requires(!::std::is_same_v<ZembraBelow, ClassName>) friend ::std::type_identity<ClassName>             \
    zembraClassAbove(const ClassName*, ::zembra::detail::AskedFor<ZembraBelow>);                           \
    template <class ZembraAny>                                                                             \
    friend struct ::zembra::detail::DataObjectAccess;                                                      \
    static constexpr char zembraName[] = #ClassName;                                                       \
    static ::zembra::detail::PropertyDeclaration<0> zembraProperty(::zembra::detail::PropertyNumber<0>);   \
    static const ::zembra::ClassDescription& staticClass() noexcept {                                      \
        return ::zembra::detail::DataObjectAccess<ClassName>::template description<Base>();                \
    }                                                                                                      \
    const ::zembra::DataObjectDescription* classDescription() const noexcept override {                    \
        static_assert(::std::is_same_v<decltype(*this), const ClassName&>,                                 \
                      "ZMB_DATA_OBJECT must name the class that it stands in");                            \
        return &::zembra::detail::DataObjectAccess<ClassName>::template description<Base>();               \
    }                                                                                                      \
    /** A new object filled from `json`; `nullptr` where that is no dictionary. */                         \
    template <::std::same_as<ClassName> ZembraObject = ClassName>                                          \
    [[nodiscard]] static ::std::shared_ptr<ZembraObject> objectWithJSON(::zembra::Value zembraJson) {      \
        return ::zembra::objectWithJSON<ZembraObject>(::std::move(zembraJson));                            \
    }                                                                                                      \
    /** A new object for each dictionary in `array`, in order; `std::nullopt` where that is nothing. */    \
    template <::std::same_as<ClassName> ZembraObject = ClassName>                                          \
    [[nodiscard]] static auto objectsWithArrayOfJSON(::zembra::Value zembraArray) {                        \
        return ::zembra::objectsWithArrayOfJSON<ZembraObject>(::std::move(zembraArray));                   \
    }                                                                                                      \
    /** The same two, for JSON from a server or a file: keys that never finish converting are left out. */ \
    template <::std::same_as<ClassName> ZembraObject = ClassName>                                          \
    [[nodiscard]] static auto objectWithUntrustedJSON(::zembra::Value zembraJson) {                        \
        return ::zembra::objectWithUntrustedJSON<ZembraObject>(::std::move(zembraJson));                   \
    }                                                                                                      \
    template <::std::same_as<ClassName> ZembraObject = ClassName>                                          \
    [[nodiscard]] static auto objectsWithArrayOfUntrustedJSON(::zembra::Value zembraArray) {               \
        return ::zembra::objectsWithArrayOfUntrustedJSON<ZembraObject>(::std::move(zembraArray));          \
    }                                                                                                      \
                                                                                                           \
private:
