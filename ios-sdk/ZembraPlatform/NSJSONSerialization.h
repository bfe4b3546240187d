#pragma once

// JSON text to values and back: the HTTP client decodes answers with it, hosts decode and write with it, on
// any thread.

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/Value.h>

namespace zembra {

/// The domain of errors about JSON text.
extern "C" ZEMBRA_EXPORT const char NSJSONSerializationErrorDomain[];

enum NSJSONSerializationErrorCode : NSInteger {
    NSJSONSerializationErrorMalformed = 1,
    NSJSONSerializationErrorTooDeep = 2,        ///< More than `maximumDepth` levels.
    NSJSONSerializationErrorTooLarge = 3,       ///< 4 GiB or more.
    NSJSONSerializationErrorNoArray = 4,        ///< JSON, but no array where one was asked for.
    NSJSONSerializationErrorForeignObject = 5,  ///< To be written: an object without declared properties.
};

/// In the user information of an error about a text: the byte offset of the fault, a number.
extern "C" ZEMBRA_EXPORT const char NSJSONSerializationErrorOffsetKey[];

/// From JSON text to values and back. No state; any thread.
///
/// Any JSON text of RFC 8259 in UTF-8 is decoded, also a bare string, number, boolean or null. A key that
/// stands twice in a dictionary has its last value. Zero characters inside strings are kept. Whole numbers
/// beyond 64 bits become floating. Refused are malformed UTF-8, a byte order mark, lone surrogates, numbers
/// beyond a `double`'s range or with an exponent of more than 18 digits, text after the value, and more than
/// `maximumDepth` levels.
class ZEMBRA_EXPORT NSJSONSerialization {
public:
    /// The largest number of arrays and dictionaries inside each other.
    static constexpr std::size_t maximumDepth = 512;

    NSJSONSerialization() = delete;

    /// The value that `text` stands for, or nothing; then `*error` (if given) says what is wrong and where.
    [[nodiscard]] static Value JSONObjectWithData(std::string_view text, NSErrorPtr* error = nullptr);

    /// The same for a text that the caller gives away: its memory is freed before this returns. A text whose
    /// string has some 70 bytes of capacity to spare is read in place, without a copy.
    [[nodiscard]] static Value JSONObjectWithData(std::string&& text, NSErrorPtr* error = nullptr);
    [[nodiscard]] static Value JSONObjectWithData(const char* text, NSErrorPtr* error = nullptr) {
        return JSONObjectWithData(std::string_view(text), error);
    }

    /// Calls `receive` with each element of the array that `text` stands for, in order, as soon as it is
    /// decoded: a long list is never in memory as a whole. False where the text is no array or no JSON; then
    /// `*error` (if given) says why, and `receive` may have got the elements before the fault. What `receive`
    /// throws ends the decoding and passes on. The text's memory is freed before this returns.
    static bool enumerateArrayWithData(std::string&& text, const std::function<void(Value element)>& receive,
                                       NSErrorPtr* error = nullptr);

    /// Compact JSON text of `value`, always well-formed. An object is written as the dictionary of its
    /// declared properties (a base class's first, in order of declaration, those that hold nothing left out),
    /// a date as its ISO 8601 text, nothing and infinities as null, a byte that is no UTF-8 as U+FFFD. A
    /// floating number has a fraction or an exponent and is read back as the same number. An array or a
    /// dictionary below `maximumDepth` others is written as null.
    ///
    /// The empty text where `value` holds an object whose class declares no properties (an error, say); then
    /// `*error` (if given) names the class.
    [[nodiscard]] static std::string dataWithJSONObject(const Value& value, NSErrorPtr* error = nullptr);
};

}  // namespace zembra
