#pragma once

#include <cstddef>
#include <string>

#include <ZembraPlatform/Value.h>

namespace zembra {

/// Arrays and dictionaries inside each other that JSON text is read and written with.
inline constexpr std::size_t kMaximumJSONDepth = 512;

enum class TextStyle {
    json,       ///< What stands at `NSJSONSerialization::dataWithJSONObject`.
    forPeople,  ///< What stands at `operator<<` of `Value`.
};

/// Appends `value` in the given style.
void appendText(std::string& text, const Value& value, TextStyle style);

}  // namespace zembra
