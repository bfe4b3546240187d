#pragma once

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
    NSJSONSerializationErrorTooDeep =
        2,  ///< More than `maximumDepth` arrays and dictionaries inside each other.
    NSJSONSerializationErrorTooLarge = 3,  ///< 4 GiB or more.
    NSJSONSerializationErrorNoArray = 4,   ///< JSON, but no array where one was asked for.
};

/// The key of such an error's user information under which the byte offset of the fault stands, a number.
extern "C" ZEMBRA_EXPORT const char NSJSONSerializationErrorOffsetKey[];

/// From JSON text to values and back. No state; any thread.
///
/// Decoding takes any JSON text of RFC 8259 in UTF-8, a bare string, number, boolean or null included. Of a
/// key that stands twice in a dictionary the last value counts; zero characters inside strings are kept;
/// whole numbers beyond 64 bits become floating. Refused: what is not well-formed UTF-8, a byte order mark,
/// lone surrogates, numbers beyond a `double`'s range or with an exponent of more than 18 digits, text after
/// the value, more than `maximumDepth` levels.
class ZEMBRA_EXPORT NSJSONSerialization {
public:
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

    /// Hands each element of the array that `text` stands for to `receive` as soon as it is decoded, in
    /// order, so that a long list is never in memory as a whole. False where the text is no array or turns
    /// out not to be JSON; then `*error` (if given) says why, and elements that stand before the fault may
    /// have been received. An exception of `receive` ends it and passes on. The text's memory is freed before
    /// this returns.
    static bool enumerateArrayWithData(std::string&& text, const std::function<void(Value element)>& receive,
                                       NSErrorPtr* error = nullptr);

    /// Compact JSON text, always well-formed: bytes that are no UTF-8 become U+FFFD, a date its ISO 8601
    /// text, an object the string of its class name, nothing and numbers that JSON cannot say (infinities)
    /// become null. Floating numbers have a fraction or an exponent and are read back as the same number.
    /// Arrays and dictionaries inside `maximumDepth` others are written as null.
    [[nodiscard]] static std::string dataWithJSONObject(const Value& value);
};

}  // namespace zembra
