// See the public header.

#include <string>
#include <utility>

#include <ZembraPlatform/NSJSONSerialization.h>

#include "json/JSONDecoder.h"
#include "json/JSONWriter.h"

namespace zembra {

extern "C" {
const char NSJSONSerializationErrorDomain[] = "NSJSONSerializationErrorDomain";
const char NSJSONSerializationErrorOffsetKey[] = "NSJSONSerializationErrorOffset";
}

namespace {

constexpr JSONFault kTooLarge{NSJSONSerializationErrorTooLarge, "4 GiB or more", kMaximumJSONSize};

/// Decodes `text` and frees it.
Value decoded(std::string text, const std::function<void(Value element)>* receive, JSONFault& fault) {
    if (text.size() <= kMaximumJSONSize) return decodedJSON(text, receive, fault);
    fault = kTooLarge;
    return {};
}

NSErrorPtr errorFor(const JSONFault& fault) {
    const std::string description = "The text is no JSON that can be read: " + std::string(fault.reason) +
                                    " at byte " + std::to_string(fault.offset) + ".";
    return NSError::errorWithDomain(NSJSONSerializationErrorDomain, fault.code,
                                    Value::dictionary({{NSLocalizedDescriptionKey, description},
                                                       {NSJSONSerializationErrorOffsetKey, fault.offset}}));
}

}  // namespace

Value NSJSONSerialization::JSONObjectWithData(std::string_view text, NSErrorPtr* error) {
    if (text.size() > kMaximumJSONSize) {
        if (error != nullptr) *error = errorFor(kTooLarge);
        return {};
    }
    std::string copy;
    copy.reserve(text.size() + kSpareJSONCapacity);
    copy = text;
    return JSONObjectWithData(std::move(copy), error);
}

Value NSJSONSerialization::JSONObjectWithData(std::string&& text, NSErrorPtr* error) {
    JSONFault fault;
    Value value = decoded(std::move(text), nullptr, fault);
    if (value.isNothing() && error != nullptr) *error = errorFor(fault);
    return value;
}

bool NSJSONSerialization::enumerateArrayWithData(std::string&& text,
                                                 const std::function<void(Value element)>& receive,
                                                 NSErrorPtr* error) {
    JSONFault fault;
    const Value value = decoded(std::move(text), &receive, fault);
    if (value.isArray()) return true;
    if (!value.isNothing()) fault = {NSJSONSerializationErrorNoArray, "no array"};
    if (error != nullptr) *error = errorFor(fault);
    return false;
}

std::string NSJSONSerialization::dataWithJSONObject(const Value& value, NSErrorPtr* error) {
    std::string text;
    const std::string foreignClass = appendJSON(text, value, JSONStyle::strict);
    if (foreignClass.empty()) return text;
    if (error != nullptr) {
        const std::string description = "The value cannot be written as JSON: it holds an object of class " +
                                        foreignClass + ", which declares no properties.";
        *error =
            NSError::errorWithDomain(NSJSONSerializationErrorDomain, NSJSONSerializationErrorForeignObject,
                                     Value::dictionary({{NSLocalizedDescriptionKey, description}}));
    }
    return {};
}

}  // namespace zembra
