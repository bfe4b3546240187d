// See the header.

#include "json/JSONWriter.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <string_view>

#include <ZembraPlatform/NSJSONSerialization.h>
#include <ZembraPlatform/NSString.h>
#include <ZembraPlatform/ObjectRuntime.h>

namespace zembra {

namespace {

class Writer {
public:
    Writer(std::string& text, JSONStyle style) : text_(text), style_(style) {}

    /// `depth` is the number of arrays and dictionaries around `value`.
    void write(const Value& value, std::size_t depth) {
        switch (value.type()) {
            case Value::Type::nothing:
                text_ += style_ == JSONStyle::strict ? "null" : "(nothing)";
                break;
            case Value::Type::null:
                text_ += "null";
                break;
            case Value::Type::boolean:
                text_ += *value.boolean() ? "true" : "false";
                break;
            case Value::Type::integer:
                writeNumber(*value.integer());
                break;
            case Value::Type::unsignedInteger:
                writeNumber(*value.unsignedInteger());
                break;
            case Value::Type::floating:
                writeFloating(*value.number());
                break;
            case Value::Type::string:
                writeString(*value.string());
                break;
            case Value::Type::date:
                text_ += '"';
                writeDate(*value.date());
                text_ += '"';
                break;
            case Value::Type::array:
            case Value::Type::dictionary:
                if (depth < NSJSONSerialization::maximumDepth) {
                    value.isArray() ? writeArray(value, depth) : writeDictionary(value, depth);
                } else {
                    text_ += style_ == JSONStyle::strict ? "null" : "...";
                }
                break;
            case Value::Type::object:
                writeObject(*value.as(), depth);
                break;
        }
    }

    /// The class name of the first object that JSON cannot say, or the empty string.
    [[nodiscard]] const std::string& foreignClass() const { return foreignClass_; }

private:
    void writeArray(const Value& array, std::size_t depth) {
        char separator = '[';
        for (const Value& element : array.elements()) {
            text_ += separator;
            write(element, depth + 1);
            separator = ',';
        }
        text_ += array.count() == 0 ? "[]" : "]";
    }

    void writeDictionary(const Value& dictionary, std::size_t depth) {
        char separator = '{';
        for (const auto& [key, value] : dictionary.entries()) {
            text_ += separator;
            writeString(*key.string());
            text_ += ':';
            write(value, depth + 1);
            separator = ',';
        }
        text_ += dictionary.count() == 0 ? "{}" : "}";
    }

    void writeObject(const NSObject& object, std::size_t depth) {
        const Value properties = style_ == JSONStyle::strict ? propertiesOf(object) : Value();
        if (!properties.isNothing()) return write(properties, depth);
        const std::string name = object.className();
        if (style_ == JSONStyle::forPeople) {
            text_.append(1, '<').append(name).append(1, '>');
        } else {
            writeString(name);
            if (foreignClass_.empty()) foreignClass_ = name;
        }
    }

    void writeNumber(auto number) {
        std::array<char, 32> digits;  // enough for 64 bits and for the shortest form of any double
        char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
        text_.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
    }

    /// With a fraction or an exponent always, so that it is read back as what it is.
    void writeFloating(double number) {
        if (!std::isfinite(number)) {
            if (style_ == JSONStyle::strict) {
                text_ += "null";
            } else {
                text_ += std::isnan(number) ? "nan" : number < 0 ? "-inf" : "inf";
            }
            return;
        }
        const std::size_t start = text_.size();
        writeNumber(number);
        if (text_.find_first_of(".e", start) == std::string::npos) text_ += ".0";
    }

    void writeString(std::string_view string) {
        static constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";
        text_ += '"';
        while (!string.empty()) {
            std::size_t length = 0;  // of what stands for itself
            while (length < string.size() && isPlain(string[length]))
                ++length;
            text_ += string.substr(0, length);
            string.remove_prefix(length);
            if (string.empty()) break;
            if (static_cast<unsigned char>(string.front()) < 0x80) {
                writeEscape(string.front());
                string.remove_prefix(1);
            } else if (const std::size_t size = lengthOfUTF8Character(string); size != 0) {
                text_ += string.substr(0, size);
                string.remove_prefix(size);
            } else {
                text_ += kReplacementCharacter;
                string.remove_prefix(1);
            }
        }
        text_ += '"';
    }

    static bool isPlain(char byte) { return byte >= 0x20 && byte < 0x7F && byte != '"' && byte != '\\'; }

    void writeEscape(char byte) {
        static constexpr std::string_view kEscaped = "\"\\\b\f\n\r\t";
        static constexpr std::string_view kLetters = "\"\\bfnrt";
        static constexpr std::string_view kHexDigits = "0123456789abcdef";
        text_ += '\\';
        if (const std::size_t index = kEscaped.find(byte); index != std::string_view::npos) {
            text_ += kLetters[index];
        } else {
            const auto code = static_cast<std::uint8_t>(byte);
            text_ += "u00";
            text_ += kHexDigits[code >> 4];
            text_ += kHexDigits[code & 0xF];
        }
    }

    /// YYYY-MM-DDThh:mm:ss[.ffffff]Z, with a sign before years that do not lie between 0 and 9999.
    void writeDate(Date date) {
        using namespace std::chrono;
        constexpr days kCalendarCycle{146'097};  // 400 years; the calendar's own years end at 32,767
        days day = duration_cast<days>(date.time_since_epoch());
        microseconds timeOfDay = date.time_since_epoch() - day;
        if (timeOfDay < microseconds::zero()) day -= days(1), timeOfDay += days(1);
        const auto cycles = day / kCalendarCycle;
        const year_month_day calendar{sys_days(day % kCalendarCycle)};
        const hh_mm_ss<microseconds> time(timeOfDay);
        const auto year = static_cast<int>(calendar.year()) + 400 * static_cast<int>(cycles);
        if (year < 0) text_ += '-';
        if (year > 9999) text_ += '+';
        writePadded(static_cast<unsigned>(std::abs(year)), 4);
        text_ += '-';
        writePadded(static_cast<unsigned>(calendar.month()), 2);
        text_ += '-';
        writePadded(static_cast<unsigned>(calendar.day()), 2);
        text_ += 'T';
        writePadded(static_cast<unsigned>(time.hours().count()), 2);
        text_ += ':';
        writePadded(static_cast<unsigned>(time.minutes().count()), 2);
        text_ += ':';
        writePadded(static_cast<unsigned>(time.seconds().count()), 2);
        if (time.subseconds() != microseconds::zero()) {
            text_ += '.';
            writePadded(static_cast<unsigned>(time.subseconds().count()), 6);
        }
        text_ += 'Z';
    }

    void writePadded(unsigned number, std::size_t width) {
        const std::size_t start = text_.size();
        writeNumber(number);
        const std::size_t written = text_.size() - start;
        if (written < width) text_.insert(start, width - written, '0');
    }

    std::string& text_;
    const JSONStyle style_;
    std::string foreignClass_;
};

}  // namespace

std::string appendJSON(std::string& text, const Value& value, JSONStyle style) {
    Writer writer(text, style);
    writer.write(value, 0);
    return writer.foreignClass();
}

std::string Value::text() const {
    if (isString()) return std::string(*string());
    if (isObject()) return object()->className();
    std::string text;
    if (!isNothing()) appendJSON(text, *this, JSONStyle::strict);
    return text;
}

std::ostream& operator<<(std::ostream& stream, const Value& value) {
    std::string text;
    appendJSON(text, value, JSONStyle::forPeople);
    return stream << text;
}

}  // namespace zembra
