#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <typeinfo>

#include <ZembraPlatform/Value.h>

/// Descriptions of classes: what a class is called, which properties it and its base classes declare and with
/// which class, and how to reach a property by name. The mapping of JSON, the JSON writer and whoever prints
/// or compares models read them. `ZMB_PROPERTY` (`<ZembraPlatform/Property.h>`) declares a property and
/// `ZMB_DATA_OBJECT` (`<ZembraCoreSDK/QVDataObject.h>`) describes a class.
///
/// Descriptions are constants: nothing is registered, nothing is built at start-up, any thread may read them.
namespace zembra {

struct ClassDescription;

/// A declared property of a class.
struct ZEMBRA_EXPORT PropertyDescription {
    std::string_view name;

    /// The class that the property is declared with, or `nullptr`: scalars and plain `Value`s have none.
    const ClassDescription* (*declaredClass)() noexcept;

    /// Where an object of the class (or of one derived from it) holds the property; `nullptr` for a scalar.
    Value* (*storage)(NSObject& object) noexcept;

    /// Reads a scalar; `nullptr` for any other property.
    Value (*scalar)(const NSObject& object) noexcept;

    /// What the property of `object` holds, raw: an object of the class or of one derived from it. A number
    /// or a boolean is read as such, an enumeration as its number, a pointer as nothing.
    [[nodiscard]] Value value(const NSObject& object) const;
};

/// The description of a class. Each shared library that uses a class may have a description of its own, so
/// compare with `isSubclassOf`, never by address.
struct ZEMBRA_EXPORT ClassDescription {
    std::string_view name;  ///< Without namespaces.
    const std::type_info* type;
    const ClassDescription* (*superclass)() noexcept;  ///< `nullptr` where none is described.
    std::span<const PropertyDescription> properties;   ///< In order of declaration, without the superclass's.
    std::shared_ptr<NSObject> (*create)();             ///< A new object; `nullptr` where none can be made.

    /// Whether this is `other` or derives from it.
    [[nodiscard]] bool isSubclassOf(const ClassDescription& other) const noexcept {
        // The lengths first: comparing types compares their longer names.
        return this == &other || (name.size() == other.name.size() && *type == *other.type) ||
               (superclass != nullptr && superclass()->isSubclassOf(other));
    }

    /// The property of that name on this class, else on the nearest class above it; `nullptr` where none
    /// declares one.
    [[nodiscard]] const PropertyDescription* property(std::string_view propertyName) const noexcept;
};

/// The declared properties of `object` as a dictionary from their names to what they hold, raw: base classes'
/// first, in order of declaration, those that hold nothing left out. Objects among them stay objects. Nothing
/// where the class of `object` has no description.
[[nodiscard]] ZEMBRA_EXPORT Value propertiesOf(const NSObject& object);

}  // namespace zembra
