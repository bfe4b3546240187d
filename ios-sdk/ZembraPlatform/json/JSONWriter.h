#pragma once

// Writes values as JSON text: for `NSJSONSerialization`, `Value::text` and `operator<<` of `Value`. Any
// thread.

#include <string>

#include <ZembraPlatform/Value.h>

namespace zembra {

enum class JSONStyle {
    strict,     ///< As `NSJSONSerialization::dataWithJSONObject` says.
    forPeople,  ///< As `operator<<` of `Value` says.
};

/// Appends `value` in the given style. In strict style it returns the class name of the first object inside
/// whose class declares no properties, which has its class name in the text; else the empty string.
std::string appendJSON(std::string& text, const Value& value, JSONStyle style);

}  // namespace zembra
