// Tells model authors what the mapping leaves out. Without state; it runs on the thread that asks.

#include <optional>
#include <string_view>
#include <utility>

#include <ZembraCoreSDK/KeyCamelization.h>
#include <ZembraCoreSDK/QVDataObject+Diagnosis.h>

namespace zembra {

namespace {

/// Why the mapping assigns nothing for `key` of `json`; empty where it does.
std::string reasonToSkip(std::string_view key, const Value& json, const QVDataObject& object) {
    if (!camelizationEnds(key)) return "its conversion never ends, since it stands on a separator at its end";
    const std::optional<std::string> name = camelizedString(key);
    if (!name) return "it has no property name, since the bytes are not well-formed";
    if (isSkippedName(*name)) return *name + " is never assigned";
    if (json[*name].isNull()) return "the dictionary holds null under " + *name;
    if (object.dataObjectClassForKey(*name) != nullptr) return {};
    if (object.classDescription()->property(*name) != nullptr)
        return *name + " is a scalar or a plain Value, which is never assigned";
    return "there is no property " + *name;
}

void addRemarks(const ClassDescription& cls, const Value& json, const std::string& path,
                std::vector<std::string>& remarks) {
    // Filled here, not by `objectWithJSON`: an override is asked about keys before any value has come.
    const auto object = QVDataObject::objectWithJSON(cls, Value::dictionary({}));
    if (object == nullptr || !json.isDictionary()) {
        remarks.push_back(path + "no object is made");
        return;
    }
    for (const auto& [key, value] : json.entries()) {
        const std::string reason = reasonToSkip(*key.string(), json, *object);
        if (!reason.empty()) remarks.push_back(path + '"' + std::string(*key.string()) + "\": " + reason);
    }
    object->initWithJSON(withoutEndlessKeys(json));
    const Value filled = propertiesOf(*object);
    for (const ClassDescription* each = object->classDescription(); each != nullptr;
         each = each->superclass == nullptr ? nullptr : each->superclass()) {
        for (const PropertyDescription& property : each->properties) {
            const bool isAssignable = property.declaredClass() != nullptr && !isSkippedName(property.name);
            if (isAssignable && filled[property.name].isNothing())
                remarks.push_back(path + std::string(property.name) + " holds nothing");
        }
    }
    for (const auto& [key, value] : json.entries()) {
        const std::optional<std::string> name =
            camelizationEnds(*key.string()) ? camelizedString(*key.string()) : std::nullopt;
        if (!name || !value.isDictionary()) continue;
        if (const auto inner = filled[*name].as<QVDataObject>())
            addRemarks(*inner->classDescription(), value, path + *name + '.', remarks);
    }
}

}  // namespace

std::vector<std::string> mappingRemarks(const ClassDescription& cls, const Value& json) {
    std::vector<std::string> remarks;
    addRemarks(cls, json, "", remarks);
    return remarks;
}

}  // namespace zembra
