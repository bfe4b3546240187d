// JSON text of any bytes makes a value or an error; a value survives the way out and in again, and, screened,
// fills data objects as a plain model of the mapping does.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "Fuzz.h"

using namespace zembra;

namespace {

class Owner : public QVDataObject {
    ZMB_DATA_OBJECT(Owner, QVDataObject)

public:
    ZMB_PROPERTY(NSString, fullName);
    ZMB_PROPERTY(NSNumber, age);
};

class Place : public QVDataObject {
    ZMB_DATA_OBJECT(Place, QVDataObject)

public:
    ZMB_PROPERTY(NSString, displayName);
    ZMB_PROPERTY(NSDate, createdAt);
    ZMB_PROPERTY(Owner, ownerInfo);
    ZMB_PROPERTY(NSArray, tags);
    ZMB_PROPERTY(NSDictionary, d);
    ZMB_PROPERTY(int, visits);

private:
    std::shared_ptr<const NSDateFormatter> dateFormatter() const {
        return NSDateFormatter::ISO8601Formatter();
    }
};

/// What a property is assigned, before it is converted: the last of the dictionary's values that meets its
/// name.
Value assigned(const Value& json, std::string_view property) {
    if (json[property].isNull()) return {};
    Value last;
    for (const auto& [key, value] : json.entries()) {
        if (camelizedString(*key.string()) == property) last = value;
    }
    return last;
}

Value dateOf(const Value& value) {
    if (!value.isString()) return value;
    const auto date = NSDateFormatter::ISO8601Formatter()->dateFromString(*value.string());
    return date ? Value(*date) : Value();
}

void checkOwner(const std::shared_ptr<Owner>& owner, const Value& json) {
    FUZZ_ASSERT((owner != nullptr) == json.isDictionary());
    if (!owner) return;
    FUZZ_ASSERT(owner->fullName.value() == assigned(json, "fullName"));
    FUZZ_ASSERT(owner->age.value() == assigned(json, "age"));
}

void checkPlace(const std::shared_ptr<Place>& place, const Value& json) {
    FUZZ_ASSERT((place != nullptr) == json.isDictionary());
    if (!place) return;
    FUZZ_ASSERT(place->displayName.value() == assigned(json, "displayName"));
    FUZZ_ASSERT(place->createdAt.value() == dateOf(assigned(json, "createdAt")));
    FUZZ_ASSERT(place->tags.value() == assigned(json, "tags"));
    FUZZ_ASSERT(place->d.value() == assigned(json, "d"));
    checkOwner(place->ownerInfo.get(), assigned(json, "ownerInfo"));
}

/// What an object is filled with does not depend on whether others hold the value too or it was given away.
void checkObjects(const Value& json) {
    const Value kept = withoutEndlessKeys(json);
    FUZZ_ASSERT(withoutEndlessKeys(kept) == kept);
    checkPlace(Place::objectWithJSON(kept), kept);
    const std::string text = NSJSONSerialization::dataWithJSONObject(kept);
    checkPlace(Place::objectWithJSON(NSJSONSerialization::JSONObjectWithData(text)), kept);

    const auto places = Place::objectsWithArrayOfJSON(kept);
    FUZZ_ASSERT(places);
    std::size_t next = 0;
    for (const Value& element : kept.elements()) {
        if (!element.isDictionary()) continue;
        FUZZ_ASSERT(next < places->size());
        checkPlace((*places)[next++], element);
    }
    FUZZ_ASSERT(next == places->size());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::textOf(data, size);
    NSErrorPtr error;
    const Value value = NSJSONSerialization::JSONObjectWithData(text, &error);
    FUZZ_ASSERT(value.isNothing() == (error != nullptr));
    NSErrorPtr sameError;
    FUZZ_ASSERT(NSJSONSerialization::JSONObjectWithData(std::string(text), &sameError) == value);
    std::vector<Value> elements;
    const auto add = [&elements](Value element) { elements.push_back(std::move(element)); };
    FUZZ_ASSERT(NSJSONSerialization::enumerateArrayWithData(std::string(text), add) == value.isArray());
    if (value.isArray()) FUZZ_ASSERT(Value::array(std::move(elements)) == value);
    if (value.isNothing()) {
        const auto offset = error->userInfo()[NSJSONSerializationErrorOffsetKey].integer();
        FUZZ_ASSERT(offset && *offset >= 0 && static_cast<std::size_t>(*offset) <= size);
        FUZZ_ASSERT(sameError && sameError->code() == error->code());
        return 0;
    }
    const std::string written = NSJSONSerialization::dataWithJSONObject(value);
    const Value again = NSJSONSerialization::JSONObjectWithData(written, &error);
    FUZZ_ASSERT(again == value);
    FUZZ_ASSERT(NSJSONSerialization::dataWithJSONObject(again) == written);
    checkObjects(again);
    return 0;
}
