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

/// Appends `value` in the given style.
void appendJSON(std::string& text, const Value& value, JSONStyle style);

}  // namespace zembra
