// See the header. The one file that sees simdjson.

#include "json/JSONDecoder.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <simdjson.h>

#include <ZembraPlatform/NSString.h>

#include "json/KeyTable.h"
#include "values/ValueBuilder.h"

namespace zembra {

namespace {

namespace ondemand = simdjson::ondemand;

using Receiver = std::function<void(Value element)>;

static_assert(kSpareJSONCapacity >= simdjson::SIMDJSON_PADDING + std::string_view("[]").size());
static_assert(kMaximumJSONSize + kSpareJSONCapacity <= simdjson::SIMDJSON_MAXSIZE_BYTES);

/// Makes simdjson's static objects as the program is loaded, before the host's, so that they end after those:
/// whatever runs while the process leaves, the client's thread or a static destructor, may still decode.
[[gnu::constructor(101)]] void makeStaticObjects() {
    static_cast<void>(simdjson::get_active_implementation()->name());
}

const char* reasonFor(simdjson::error_code error) {
    switch (error) {
        case simdjson::UTF8_ERROR:
            return "not well-formed UTF-8";
        case simdjson::UNESCAPED_CHARS:
            return "a control character in a string";
        case simdjson::UNCLOSED_STRING:
            return "a string that does not end";
        case simdjson::STRING_ERROR:
            return "a string with a wrong escape";
        case simdjson::NUMBER_ERROR:
        case simdjson::NUMBER_OUT_OF_RANGE:
            return "no number, or one too large";
        case simdjson::EMPTY:
            return "no value";
        case simdjson::TRAILING_CONTENT:
            return "text after the value";
        case simdjson::INCOMPLETE_ARRAY_OR_OBJECT:
            return "an array or a dictionary that does not end";
        default:
            return "unexpected text";
    }
}

/// Decodes one text. Each function that decodes returns nothing where it fails, and then `fault()` says why.
class Decoder {
public:
    /// Behind `text` there are `SIMDJSON_PADDING` bytes more.
    Decoder(std::string_view text, const Receiver* receive)
        : text_(text),
          receive_(receive),
          unescaped_(
              std::make_unique_for_overwrite<std::uint8_t[]>(text.size() + simdjson::SIMDJSON_PADDING)) {}

    /// The outermost value is an array or a dictionary, or the only element of an array around it.
    Value decode(bool isElement) {
        const std::size_t allocatedSize = text_.size() + simdjson::SIMDJSON_PADDING;
        if (const auto error = parser_.iterate(text_.data(), text_.size(), allocatedSize).get(document_))
            return fail(error, offsetOfLexicalFault(error));
        Value value = isElement ? decodeOnlyElement() : decodeContainer(document_, keys_.root(), 0);
        const bool isFollowed =
            !value.isNothing() && document_.current_location().error() != simdjson::OUT_OF_BOUNDS;
        return isFollowed ? fail(simdjson::TRAILING_CONTENT) : value;
    }

    [[nodiscard]] const JSONFault& fault() const { return fault_; }

private:
    Value decodeOnlyElement() {
        ondemand::array array;
        if (const auto error = document_.get_array().get(array)) return fail(error);
        Value only;
        for (auto element : array) {
            ondemand::value value;
            if (const auto error = element.get(value)) return fail(error);
            if (!only.isNothing()) return fail(simdjson::TRAILING_CONTENT);
            only = decodeValue(value, keys_.root(), 0);
            if (only.isNothing()) return {};
        }
        return only.isNothing() ? fail(simdjson::EMPTY) : only;
    }

    /// `outerKey` is the nearest key around the value, `depth` the number of arrays and dictionaries.
    Value decodeValue(ondemand::value& value, KeyTable::Key* outerKey, std::size_t depth) {
        ondemand::json_type type;
        if (const auto error = value.type().get(type)) return fail(error);
        switch (type) {
            case ondemand::json_type::string:
                return decodeString(value);
            case ondemand::json_type::number:
                return decodeNumber(value);
            case ondemand::json_type::boolean: {
                bool boolean = false;
                if (const auto error = value.get_bool().get(boolean)) return fail(error);
                return boolean;
            }
            case ondemand::json_type::null: {
                bool isNull = false;
                if (const auto error = value.is_null().get(isNull)) return fail(error);
                return Value::null();
            }
            default:
                return decodeContainer(value, outerKey, depth);
        }
    }

    Value decodeString(ondemand::value& value) {
        ondemand::raw_json_string raw;
        if (const auto error = value.get_raw_json_string().get(raw)) return fail(error);
        std::string_view string;
        return unescape(raw, string) ? Value(string) : Value();
    }

    Value decodeNumber(ondemand::value& value) {
        ondemand::number number;
        if (value.get_number().get(number) != simdjson::SUCCESS) return decodeLongNumber(value);
        switch (number.get_number_type()) {
            case ondemand::number_type::signed_integer:
                return number.get_int64();
            case ondemand::number_type::unsigned_integer:
                return number.get_uint64();
            default:
                break;
        }
        const bool mayBeLong = value.raw_json_token().size() > kLongestExactNumber;
        return mayBeLong ? decodeLongNumber(value) : Value(number.get_double());
    }

    /// Whole numbers beyond 64 bits, which `get_number` refuses, and fractions of many digits, some of which
    /// simdjson 3.0.1 reads wrongly (it counts the digits of those that start with "0." from the wrong end,
    /// and takes more than its 19). simdjson checks the form, the standard library converts.
    Value decodeLongNumber(ondemand::value& value) {
        const std::string_view token = value.raw_json_token();
        const std::size_t offset = offsetOf(token.data());
        double floating = 0;
        if (const auto error = value.get_double().get(floating)) return fail(error, offset);
        const auto status = std::from_chars(token.data(), token.data() + token.size(), floating).ec;
        if (status != std::errc()) {  // beyond the range of a `double`, which leaves `floating` as it was
            if (std::abs(floating) > 1) return fail(simdjson::NUMBER_OUT_OF_RANGE, offset);
            floating = token.front() == '-' ? -0.0 : 0.0;
        }
        return floating;
    }

    template <typename Source>
    Value decodeContainer(Source& source, KeyTable::Key* outerKey, std::size_t depth) {
        if (depth == NSJSONSerialization::maximumDepth) {
            fault_ = {NSJSONSerializationErrorTooDeep, "too many levels", currentOffset()};
            return {};
        }
        ondemand::json_type type;
        if (const auto error = source.type().get(type)) return fail(error);
        if (type == ondemand::json_type::array) {
            ondemand::array array;
            if (const auto error = source.get_array().get(array)) return fail(error);
            return decodeArray(array, outerKey, depth);
        }
        ondemand::object object;
        if (const auto error = source.get_object().get(object)) return fail(error);
        return decodeDictionary(object, outerKey, depth);
    }

    Value decodeArray(ondemand::array& array, KeyTable::Key* outerKey, std::size_t depth) {
        const std::size_t start = elements_.size();
        for (auto element : array) {
            ondemand::value value;
            if (const auto error = element.get(value)) return fail(error);
            Value decoded = decodeValue(value, outerKey, depth + 1);
            if (decoded.isNothing()) return {};
            if (receive_ != nullptr && depth == 0) {
                (*receive_)(std::move(decoded));
            } else {
                elements_.push_back(std::move(decoded));
            }
        }
        Value decoded = ValueBuilder::array(std::span(elements_).subspan(start));
        elements_.resize(start);
        return decoded;
    }

    Value decodeDictionary(ondemand::object& object, KeyTable::Key* outerKey, std::size_t depth) {
        const std::size_t start = entries_.size();
        KeyTable::Place place{outerKey};
        for (auto element : object) {
            ondemand::field field;
            if (const auto error = std::move(element).get(field)) return fail(error);
            KeyTable::Key* const key = decodeKey(field.key(), place);
            if (key == nullptr) return {};
            Value decoded = decodeValue(field.value(), key, depth + 1);
            if (decoded.isNothing()) return {};
            entryKeys_.push_back(key);
            entries_.push_back({key->value, std::move(decoded)});
        }
        const std::span entries = std::span(entries_).subspan(start);
        Value decoded =
            keys_.areDistinct(std::span(entryKeys_).subspan(start))
                ? ValueBuilder::dictionary(entries)
                : Value::dictionary({std::move_iterator(entries.begin()), std::move_iterator(entries.end())});
        entries_.resize(start);
        entryKeys_.resize(start);
        return decoded;
    }

    /// The key, or `nullptr` where it cannot be unescaped.
    KeyTable::Key* decodeKey(ondemand::raw_json_string raw, KeyTable::Place& place) {
        if (KeyTable::Key* const key = KeyTable::takeExpected(place, text_.substr(offsetOf(raw.raw()))))
            return key;
        std::string_view string;
        return unescape(raw, string) ? keys_.take(place, string) : nullptr;
    }

    /// `string` lasts until the next call.
    bool unescape(ondemand::raw_json_string raw, std::string_view& string) {
        std::uint8_t* end = unescaped_.get();
        const auto error = parser_.unescape(raw, end).get(string);
        if (error != simdjson::SUCCESS) fail(error, offsetOf(raw.raw()));
        return error == simdjson::SUCCESS;
    }

    // Faults ------------------------------------------------------------------------------------------------

    Value fail(simdjson::error_code error) { return fail(error, currentOffset()); }

    Value fail(simdjson::error_code error, std::size_t offset) {
        if (error == simdjson::MEMALLOC) throw std::bad_alloc();
        fault_ = {NSJSONSerializationErrorMalformed, reasonFor(error), offset};
        return {};
    }

    [[nodiscard]] std::size_t currentOffset() {
        const char* position = nullptr;
        const bool isAtEnd = document_.current_location().get(position) != simdjson::SUCCESS;
        return isAtEnd ? text_.size() : offsetOf(position);
    }

    [[nodiscard]] std::size_t offsetOf(const char* position) const {
        return std::min(static_cast<std::size_t>(position - text_.data()), text_.size());
    }

    /// Where a fault is that simdjson found, without its place, before any value was looked at.
    [[nodiscard]] std::size_t offsetOfLexicalFault(simdjson::error_code error) const {
        std::size_t offset = 0;
        if (error == simdjson::UTF8_ERROR) {
            while (const std::size_t length = lengthOfUTF8Character(text_.substr(offset)))
                offset += length;
            return offset;
        }
        bool isInString = false;
        for (; offset < text_.size(); ++offset) {
            const auto byte = static_cast<std::uint8_t>(text_[offset]);
            if (byte == '"') isInString = !isInString;
            if (!isInString) continue;
            if (byte < 0x20 && error == simdjson::UNESCAPED_CHARS) return offset;
            if (byte == '\\') ++offset;
        }
        return text_.size();
    }

    static constexpr std::size_t kLongestExactNumber = 19;

    const std::string_view text_;
    const Receiver* const receive_;
    const std::unique_ptr<std::uint8_t[]> unescaped_;  // one string at a time; no longer than the text
    ondemand::parser parser_;
    ondemand::document document_;
    KeyTable keys_;
    std::vector<Value> elements_;            // of the arrays that are being decoded
    std::vector<Value::Entry> entries_;      // of the dictionaries that are being decoded
    std::vector<KeyTable::Key*> entryKeys_;  // and their keys
    JSONFault fault_;
};

}  // namespace

Value decodedJSON(std::string& text, const Receiver* receive, JSONFault& fault) {
    const std::size_t size = text.size();
    // Of a text that does not end as it begins, simdjson does not say where it fails, and a bare value it
    // reads by other rules ("falsex" is false). So both are read as the only element of an array.
    static constexpr std::string_view kWhitespace = " \t\n\r";
    const std::size_t first = text.find_first_not_of(kWhitespace);
    const char opening = first == std::string::npos ? '\0' : text[first];
    const char closing = opening == '\0' ? '\0' : text[text.find_last_not_of(kWhitespace)];
    const bool isWhole = (opening == '[' && closing == ']') || (opening == '{' && closing == '}');
    text.reserve(size + kSpareJSONCapacity);
    if (!isWhole) text.insert(0, 1, '[') += ']';
    const std::size_t wholeSize = text.size();
    text.append(simdjson::SIMDJSON_PADDING, ' ');
    Decoder decoder(std::string_view(text).substr(0, wholeSize), isWhole ? receive : nullptr);
    Value value = decoder.decode(!isWhole);
    fault = decoder.fault();
    if (!isWhole) fault.offset = std::min(size, fault.offset - std::min<std::size_t>(fault.offset, 1));
    return value;
}

}  // namespace zembra
