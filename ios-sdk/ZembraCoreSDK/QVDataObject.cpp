#include <algorithm>
#include <iterator>
#include <utility>

#include <ZembraCoreSDK/KeyCamelization.h>
#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>

namespace zembra {

namespace {

bool isSkipped(const detail::NameHead& name) noexcept {
    static constexpr detail::NameHead skippedNames[]{detail::NameHead("id"), detail::NameHead("_id"),
                                                     detail::NameHead("description")};
    return std::ranges::find(skippedNames, name) != std::end(skippedNames);
}

bool isDataObjectClass(const Class& cls) noexcept {
    // Tags, the most frequent by far, are told by what they have not.
    return (cls.superclass != nullptr || cls.create != nullptr) &&
           cls.isSubclassOf(QVDataObject::staticClass());
}

/// Whether `value` is assigned to a property of class `cls` in another form than its own.
bool needsConversion(const Value& value, const Class& cls) noexcept {
    return value.isArray() || isDataObjectClass(cls) ||
           (value.isString() && cls.isSubclassOf(NSDate::staticClass()));
}

/// The properties of a class by their names. Whoever asks for them in order of declaration finds each at
/// once.
class PropertySearch {
public:
    explicit PropertySearch(const Class& cls) noexcept : class_(cls) {}

    const PropertyDescription* property(std::string_view name, const detail::NameHead& head) noexcept {
        const std::span<const PropertyDescription> properties = class_.properties;
        for (std::size_t count = properties.size(); count > 0; --count) {
            if (next_ == properties.size()) next_ = 0;
            const PropertyDescription& property = properties[next_++];
            const bool isSame = property.head == head && property.name.size() == name.size() &&
                                (name.size() <= sizeof head || property.name == name);
            if (isSame) return &property;
        }
        return class_.superclass == nullptr ? nullptr : class_.superclass()->property(name);
    }

private:
    const Class& class_;
    std::size_t next_ = 0;
};

/// The value to assign where `value` met the property `key` of `object`, declared with class `cls`.
Value convertedValue(QVDataObject& object, Value value, std::string_view key, const Class& cls) {
    if (isDataObjectClass(cls)) return QVDataObject::objectWithJSON(cls, std::move(value));
    if (value.isArray()) {
        const auto hook = object.dynamicClass().arrayPropertyForKey;
        if (hook == nullptr) return value;
        Value replacement = hook(object, key, value);
        return replacement.isArray() ? replacement : Value::array({});
    }
    if (cls.isSubclassOf(NSDate::staticClass()) && value.isString()) {
        const auto hook = object.dynamicClass().dateFormatter;
        const auto formatter = hook == nullptr ? nullptr : hook(object);
        if (formatter == nullptr) return {};
        const std::optional<Date> date = formatter->dateFromString(*value.string());
        return date ? Value(*date) : Value();
    }
    return value;
}

}  // namespace

QVDataObject::~QVDataObject() = default;

const DataObjectClass& QVDataObject::staticClass() noexcept {
    static constexpr DataObjectClass description{
        {"QVDataObject", &typeid(QVDataObject), nullptr, {}, detail::creationOf<QVDataObject>()},
        nullptr,
        nullptr,
        false};
    return description;
}

const DataObjectClass& QVDataObject::dynamicClass() const noexcept {
    return staticClass();
}

std::shared_ptr<QVDataObject> QVDataObject::objectWithJSON(const Class& cls, Value json) {
    if (cls.create == nullptr || !cls.isSubclassOf(staticClass())) return nullptr;
    auto object = std::static_pointer_cast<QVDataObject>(cls.create());
    return object->initWithJSON(std::move(json)) ? object : nullptr;
}

bool QVDataObject::initWithJSON(Value json) {
    if (!json.isDictionary()) return false;
    const DataObjectClass& cls = dynamicClass();
    // Where nothing stands between a key and its property, the two operations are taken in one step. A class
    // without a description of its own may override them unseen.
    const bool isDirect = !cls.overridesMapping && *cls.type == typeid(*this);
    const bool containsNull = json.containsNull();
    PropertySearch search(cls);
    NameBuffer buffer;
    const std::span<const Value::Entry> entries = json.entries();
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const std::string_view key = *entries[index].key.string();
        const std::optional<ShortName> shortName = shortNameForKey(key);
        const std::optional<std::string_view> longName = shortName ? std::nullopt : nameForKey(key, buffer);
        if (!shortName && !longName) continue;
        const std::string_view name = shortName ? shortName->string() : *longName;
        const detail::NameHead head = shortName ? shortName->head : detail::NameHead(name);
        if (isSkipped(head)) continue;
        if (containsNull && json[name].isNull()) continue;
        if (!isDirect) {
            if (const Class* const declared = dataObjectClassForKey(name))
                setPropertyValue(json.takeValueAt(index), name, *declared);
            continue;
        }
        const PropertyDescription* const property = search.property(name, head);
        const Class* const declared = property == nullptr ? nullptr : property->declaredClass();
        if (declared == nullptr) continue;
        Value value = json.takeValueAt(index);
        if (needsConversion(value, *declared))
            value = convertedValue(*this, std::move(value), name, *declared);
        property->storage(*this)->swap(value);
    }
    return true;
}

const Class* QVDataObject::dataObjectClassForKey(std::string_view key) const {
    const PropertyDescription* const property = dynamicClass().property(key);
    return property == nullptr ? nullptr : property->declaredClass();
}

void QVDataObject::setPropertyValue(Value value, std::string_view key, const Class& cls) {
    value = convertedValue(*this, std::move(value), key, cls);
    const PropertyDescription* const property = dynamicClass().property(key);
    if (Value* const storage = property == nullptr ? nullptr : property->storage(*this))
        *storage = std::move(value);
}

}  // namespace zembra
