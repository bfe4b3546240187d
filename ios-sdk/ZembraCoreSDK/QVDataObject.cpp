// Fills data objects from JSON, on the thread that asks for it.

#include <algorithm>
#include <utility>

#include <ZembraCoreSDK/KeyCamelization.h>
#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>

namespace zembra {

namespace {

/// The value to assign where `value` met the property `key` of `object`, declared with class `cls`.
Value convertedValue(QVDataObject& object, Value value, std::string_view key, const ClassDescription& cls) {
    if (cls.isSubclassOf(QVDataObject::staticClass()))
        return QVDataObject::objectWithJSON(cls, std::move(value));
    if (value.isArray()) {
        const auto hook = object.classDescription()->arrayPropertyForKey;
        if (hook == nullptr) return value;
        Value replacement = hook(object, key, value);
        return replacement.isArray() ? replacement : Value::array({});
    }
    if (value.isString() && cls.isSubclassOf(NSDate::staticClass())) {
        const auto hook = object.classDescription()->dateFormatter;
        const auto formatter = hook == nullptr ? nullptr : hook(object);
        if (formatter == nullptr) return {};
        const std::optional<Date> date = formatter->dateFromString(*value.string());
        return date ? Value(*date) : Value();
    }
    return value;
}

constexpr DataObjectDescription kDescription{
    {"QVDataObject", &typeid(QVDataObject), nullptr, {}, detail::creationOf<QVDataObject>()},
    nullptr,
    nullptr};

}  // namespace

QVDataObject::~QVDataObject() = default;

const ClassDescription& QVDataObject::staticClass() noexcept {
    return kDescription;
}

const DataObjectDescription* QVDataObject::classDescription() const noexcept {
    return &kDescription;
}

std::shared_ptr<QVDataObject> QVDataObject::objectWithJSON(const ClassDescription& cls, Value json) {
    if (cls.create == nullptr || !cls.isSubclassOf(staticClass())) return nullptr;
    auto object = std::static_pointer_cast<QVDataObject>(cls.create());
    return object->initWithJSON(std::move(json)) ? object : nullptr;
}

bool QVDataObject::initWithJSON(Value json) {
    if (!json.isDictionary()) return false;
    const std::span<const Value::Entry> entries = json.entries();
    const bool holdsNull =
        std::ranges::any_of(entries, [](const Value::Entry& entry) { return entry.value.isNull(); });
    NameBuffer buffer;
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const std::optional<std::string_view> name = nameForKey(*entries[index].key.string(), buffer);
        if (!name || isSkippedName(*name)) continue;
        if (holdsNull && json[*name].isNull()) continue;
        if (const ClassDescription* const cls = dataObjectClassForKey(*name))
            setPropertyValue(json.takeValueAt(index), *name, *cls);
    }
    return true;
}

const ClassDescription* QVDataObject::dataObjectClassForKey(std::string_view key) const {
    const PropertyDescription* const property = classDescription()->property(key);
    return property == nullptr ? nullptr : property->declaredClass();
}

void QVDataObject::setPropertyValue(Value value, std::string_view key, const ClassDescription& cls) {
    value = convertedValue(*this, std::move(value), key, cls);
    const PropertyDescription* const property = classDescription()->property(key);
    if (property != nullptr && property->storage != nullptr) *property->storage(*this) = std::move(value);
}

}  // namespace zembra
