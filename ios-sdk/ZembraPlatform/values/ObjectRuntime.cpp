// Reads classes and objects by their descriptions. It has no state; any thread may call it.

#include <vector>

#include <ZembraPlatform/ObjectRuntime.h>

namespace zembra {

Value PropertyDescription::value(const NSObject& object) const {
    // The storage is only read. The function that finds it has one form, the one that an assignment needs.
    return scalar != nullptr ? scalar(object) : *storage(const_cast<NSObject&>(object));
}

const PropertyDescription* ClassDescription::property(std::string_view propertyName) const noexcept {
    if (propertyName.empty()) return nullptr;
    for (const PropertyDescription& property : properties)
        // The first letters first: most names that differ need no call to compare them.
        if (property.name.front() == propertyName.front() && property.name == propertyName) return &property;
    return superclass == nullptr ? nullptr : superclass()->property(propertyName);
}

namespace {

void addProperties(const NSObject& object, const ClassDescription& cls, std::vector<Value::Entry>& entries) {
    if (cls.superclass != nullptr) addProperties(object, *cls.superclass(), entries);
    for (const PropertyDescription& property : cls.properties)
        entries.push_back({property.name, property.value(object)});
}

}  // namespace

Value propertiesOf(const NSObject& object) {
    const ClassDescription* const cls = object.classDescription();
    if (cls == nullptr) return {};
    std::vector<Value::Entry> entries;
    addProperties(object, *cls, entries);
    return Value::dictionary(std::move(entries));
}

}  // namespace zembra
