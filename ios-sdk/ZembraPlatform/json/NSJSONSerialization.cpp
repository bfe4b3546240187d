#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include <simdjson.h>

#include <ZembraPlatform/NSJSONSerialization.h>
#include <ZembraPlatform/NSString.h>

#include "json/ValueText.h"
#include "values/KeyHash.h"
#include "values/ValueBuilder.h"

namespace zembra {

extern "C" {
const char NSJSONSerializationErrorDomain[] = "NSJSONSerializationErrorDomain";
const char NSJSONSerializationErrorOffsetKey[] = "NSJSONSerializationErrorOffset";
}

static_assert(NSJSONSerialization::maximumDepth == kMaximumJSONDepth);
static_assert(NSJSONSerialization::spareCapacity >=
              simdjson::SIMDJSON_PADDING + std::string_view("[]").size());

namespace {

namespace ondemand = simdjson::ondemand;

constexpr std::size_t kMaximumSize = simdjson::SIMDJSON_MAXSIZE_BYTES - NSJSONSerialization::spareCapacity;

/// Why a text was refused, and where.
struct Fault {
    NSJSONSerializationErrorCode code = NSJSONSerializationErrorMalformed;
    const char* reason = "";
    std::size_t offset = 0;
    bool isOpenEnd = false;  // the text does not end as an array or a dictionary must
};

constexpr Fault kNoArray = {NSJSONSerializationErrorNoArray, "no array"};
constexpr Fault kTooLarge = {NSJSONSerializationErrorTooLarge, "4 GiB or more", kMaximumSize};

/// The first bytes of a string's JSON text, without its opening quotation mark, for comparing them at once.
struct Head {
    std::uint64_t words[2];

    static Head load(const char* text) {
        Head head;
        std::memcpy(head.words, text, sizeof(head.words));
        return head;
    }

    /// Ones for the bytes up to the first quotation mark, that included (later bytes may be there as well).
    [[nodiscard]] Head mask() const {
        const auto maskOf = [](std::uint64_t word) {
            constexpr std::uint64_t kOnes = 0x0101'0101'0101'0101;
            const std::uint64_t zeros = word ^ ('"' * kOnes);
            const std::uint64_t marks = (zeros - kOnes) & ~zeros & (0x80 * kOnes);
            return marks ^ (marks - 1);
        };
        const std::uint64_t first = maskOf(words[0]);
        return {first, first == ~std::uint64_t{0} ? maskOf(words[1]) : 0};
    }

    [[nodiscard]] Head operator&(const Head& mask) const {
        return {words[0] & mask.words[0], words[1] & mask.words[1]};
    }

    bool operator==(const Head&) const = default;
};

/// The keys of one text: each distinct one is one value.
///
/// Keys are looked for in the text as it stands, before they are unescaped: first where the dictionary before
/// had them, then by a cache of the latest ones. Only then are they unescaped and looked up by their hash,
/// which is keyed: whoever chooses the keys can make the cache useless, and no more.
class KeyTable {
public:
    using Number = std::uint32_t;
    static constexpr Number kNone = 0;  // stands for the key around the outermost dictionary

    struct Key {
        Value string;
        Head head = {~std::uint64_t{0}, 0};      // that of its JSON text; if it must be escaped,
        Head headMask = {~std::uint64_t{0}, 0};  // one that no UTF-8 text has
        bool isShort = false;                    // so the head has all of it, with the closing quotation mark
        Number lastSeen = 0;            // the last dictionary, counted by `hasDuplicates`, that has it
        std::vector<Number> innerKeys;  // those of the last dictionary under this key, in order
    };

    /// All texts handed in end at `end` and are padded.
    explicit KeyTable(const char* end) : end_(end) {
        keys_.reserve(12);  // within 1 KiB, up to which the allocator is quickest
        keys_.emplace_back();
    }

    [[nodiscard]] Key& operator[](Number number) { return keys_[number]; }

    /// Whether a key's JSON text is what stands at `text`, behind the quotation mark.
    [[nodiscard]] bool stands(Number number, const char* text) const {
        const Key& key = keys_[number];
        if ((Head::load(text) & key.headMask) != key.head) return false;
        if (key.isShort) return true;
        const std::string_view string = *key.string.string();
        return string.size() < static_cast<std::size_t>(end_ - text) && text[string.size()] == '"' &&
               std::memcmp(text, string.data(), string.size()) == 0;
    }

    /// The number of the key whose JSON text stands at `text`, or `kNone` if it is not one of the latest.
    [[nodiscard]] Number latest(const char* text) {
        const Number number = latest_[latestIndexOf(text)];
        return number != kNone && stands(number, text) ? number : kNone;
    }

    /// The number of the key `string`, which stands at `text` and is new or known.
    [[nodiscard]] Number numberOf(std::string_view string, const char* text) {
        if (2 * keys_.size() > slots_.size()) growSlots();
        Number& slot = slotOf(string);
        if (slot == kNone) {
            slot = static_cast<Number>(keys_.size());
            Key& key = keys_.emplace_back();
            key.string = string;
            key.isShort = string.size() < sizeof(Head);
            const bool isEscaped =
                string.find('"') != std::string_view::npos || string.find('\\') != std::string_view::npos;
            if (!isEscaped) setHead(key, string);
        }
        return latest_[latestIndexOf(text)] = slot;
    }

    /// Whether any of the keys of one dictionary stands in it more than once.
    [[nodiscard]] bool hasDuplicates(const Number* numbers, std::size_t count) {
        ++dictionaries_;
        bool found = false;
        for (std::size_t index = 0; index < count; ++index)
            found |= std::exchange(keys_[numbers[index]].lastSeen, dictionaries_) == dictionaries_;
        return found;
    }

private:
    static void setHead(Key& key, std::string_view string) {
        char text[sizeof(Head)] = {};
        char mask[sizeof(Head)] = {};
        const std::size_t length = string.copy(text, sizeof(text));
        if (length < sizeof(text)) text[length] = '"';
        std::memset(mask, 0xFF, std::min(length + 1, sizeof(mask)));
        key.head = Head::load(text);
        key.headMask = Head::load(mask);
    }

    static std::size_t latestIndexOf(const char* text) {
        const Head loaded = Head::load(text);
        const Head head = loaded & loaded.mask();
        return ((head.words[0] ^ std::rotl(head.words[1], 29)) * 0x9E37'79B9'7F4A'7C15) >> 56;
    }

    [[nodiscard]] Number& slotOf(std::string_view string) {
        const std::size_t mask = slots_.size() - 1;
        std::size_t position = hashOfKey(string) & mask;
        while (slots_[position] != kNone && keys_[slots_[position]].string.string() != string)
            position = (position + 1) & mask;
        return slots_[position];
    }

    void growSlots() {
        slots_.assign(std::max<std::size_t>(64, 2 * slots_.size()), kNone);
        for (Number number = 1; number < keys_.size(); ++number)
            slotOf(*keys_[number].string.string()) = number;
    }

    const char* const end_;
    std::vector<Key> keys_;      // number 0 is no key
    std::vector<Number> slots_;  // open addressing; twice as many as keys at least
    std::array<Number, 256> latest_{};
    Number dictionaries_ = 0;
};

using Receiver = std::function<void(Value element)>;

/// A parser, from which small texts take most of their time to make: each thread keeps one for the next text.
class KeptParser {
public:
    KeptParser() : parser_(std::move(spare())) {
        if (!parser_) parser_ = std::make_unique<ondemand::parser>();
    }
    KeptParser(const KeptParser&) = delete;
    KeptParser& operator=(const KeptParser&) = delete;
    ~KeptParser() {
        if (parser_->capacity() <= kLargestKept) spare() = std::move(parser_);
    }
    ondemand::parser* operator->() const { return parser_.get(); }

private:
    static constexpr std::size_t kLargestKept = std::size_t{16} * 1024;

    static std::unique_ptr<ondemand::parser>& spare() {
        static thread_local std::unique_ptr<ondemand::parser> parser;
        return parser;
    }

    std::unique_ptr<ondemand::parser> parser_;
};

/// Decodes one text. `text` is well padded.
class Decoder {
public:
    /// With a `receiver`, that gets the elements of the outermost array, which then is decoded to an empty
    /// one.
    Decoder(std::string_view text, std::size_t allocatedSize, const Receiver* receiver)
        : text_(text),
          allocatedSize_(allocatedSize),
          receiver_(receiver),
          keys_(text.data() + text.size()),
          parts_(text.size()) {
        openKeys_.reserve(16);
    }

    /// What the text stands for, or nothing and then the fault. A bare value comes in brackets.
    [[nodiscard]] Value decode(bool isBracketed) {
        if (const auto error = parser_->iterate(text_.data(), text_.size(), allocatedSize_).get(document_)) {
            fail(error, offsetOfLexicalFault(error));
            return {};
        }
        const bool isDecoded =
            isBracketed ? decodeBracketed() : decodeContainer(document_, KeyTable::kNone, 0);
        if (!isDecoded) return {};
        if (document_.current_location().error() != simdjson::OUT_OF_BOUNDS) {
            fail(simdjson::TRAILING_CONTENT);
            return {};
        }
        return parts_.pop();
    }

    [[nodiscard]] const Fault& fault() const { return fault_; }

private:
    // Each of these pushes one value to `parts_`, or fails and returns false. -------------------------------

    bool decodeBracketed() {
        ondemand::array array;
        if (const auto error = document_.get_array().get(array)) return fail(error);
        std::size_t count = 0;
        for (auto element : array) {
            if (element.error() != simdjson::SUCCESS) return fail(element.error());
            // NOLINTNEXTLINE(performance-move-const-arg): a value is read where it is, copying it stalls
            auto&& value = std::move(element).value_unsafe();
            if (++count > 1) return fail(simdjson::TRAILING_CONTENT);
            if (!decodeValue(value, KeyTable::kNone, 0)) return false;
        }
        return count == 1 || fail(simdjson::EMPTY);
    }

    /// `outerKey` is the nearest key around `value`, `depth` the number of arrays and dictionaries around it.
    bool decodeValue(ondemand::value& value, KeyTable::Number outerKey, std::size_t depth) {
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
                parts_.push(boolean);
                return true;
            }
            case ondemand::json_type::null: {
                bool isNull = false;
                if (const auto error = value.is_null().get(isNull)) return fail(error);
                parts_.push(Value::null());
                return true;
            }
            default:
                return decodeContainer(value, outerKey, depth);
        }
    }

    bool decodeString(ondemand::value& value) {
        // Where it is not too long, a string is unescaped right where it will stand.
        const std::size_t tokenSize = value.raw_json_token().size();
        ondemand::raw_json_string raw;
        if (const auto error = value.get_raw_json_string().get(raw)) return fail(error);
        char* const room = parts_.roomForString(tokenSize + simdjson::SIMDJSON_PADDING);
        std::string_view string;
        if (room == nullptr) {
            if (!unescape(raw, tokenSize, string)) return false;
            parts_.push(string);
        } else {
            if (!unescape(raw, reinterpret_cast<std::uint8_t*>(room), string)) return false;
            parts_.pushStringInRoom(room, string.size());
        }
        return true;
    }

    bool decodeNumber(ondemand::value& value) {
        ondemand::number number;
        if (value.get_number().get(number) != simdjson::SUCCESS) return decodeLongNumber(value);
        const bool mayBeLong = number.is_double() && value.raw_json_token().size() > kLongestExactNumber;
        if (mayBeLong) return decodeLongNumber(value);
        switch (number.get_number_type()) {
            case ondemand::number_type::signed_integer:
                parts_.push(number.get_int64());
                break;
            case ondemand::number_type::unsigned_integer:
                parts_.push(number.get_uint64());
                break;
            default:
                parts_.push(number.get_double());
                break;
        }
        return true;
    }

    /// A whole number beyond 64 bits, which `get_number` refuses, or a fraction that may have more digits
    /// than simdjson reads rightly. simdjson checks the form, the standard library makes the number.
    bool decodeLongNumber(ondemand::value& value) {
        double floating = 0;
        if (const auto error = value.get_double().get(floating)) return fail(error);
        const std::string_view token = value.raw_json_token();
        const auto status = std::from_chars(token.data(), token.data() + token.size(), floating).ec;
        if (status != std::errc()) {  // too large, or too small and then 0
            if (std::abs(floating) > 1) return fail(simdjson::NUMBER_OUT_OF_RANGE);
            floating = 0;
        }
        parts_.push(floating);
        return true;
    }

    template <typename Source>
    bool decodeContainer(Source& source, KeyTable::Number outerKey, std::size_t depth) {
        if (depth == kMaximumJSONDepth) return failTooDeep();
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

    bool decodeArray(ondemand::array& array, KeyTable::Number outerKey, std::size_t depth) {
        const std::size_t start = parts_.size();
        for (auto element : array) {
            if (element.error() != simdjson::SUCCESS) return fail(element.error());
            // NOLINTNEXTLINE(performance-move-const-arg): a value is read where it is, copying it stalls
            auto&& value = std::move(element).value_unsafe();
            if (!decodeValue(value, outerKey, depth + 1)) return false;
            if (receiver_ != nullptr && depth == 0) (*receiver_)(parts_.pop());
        }
        parts_.makeArray(start);
        return true;
    }

    bool decodeDictionary(ondemand::object& object, KeyTable::Number outerKey, std::size_t depth) {
        const std::size_t start = parts_.size();
        const std::size_t firstKey = openKeys_.size();
        std::size_t position = 0;  // among the keys that are expected
        for (auto element : object) {
            if (element.error() != simdjson::SUCCESS) return fail(element.error());
            auto&& field = std::move(element).value_unsafe();
            KeyTable::Number key = KeyTable::kNone;
            if (!decodeKey(field, outerKey, position, key)) return false;
            openKeys_.push_back(key);
            parts_.push(keys_[key].string);
            if (!decodeValue(field.value(), key, depth + 1)) return false;
        }
        if (keys_.hasDuplicates(openKeys_.data() + firstKey, openKeys_.size() - firstKey)) {
            makeDictionaryWithDuplicates(start);
        } else {
            parts_.makeDictionary(start);
        }
        openKeys_.resize(firstKey);
        return true;
    }

    /// The number of the key of `field`. `position` says where in the expected order it is sought, and moves
    /// on.
    bool decodeKey(ondemand::field& field, KeyTable::Number outerKey, std::size_t& position,
                   KeyTable::Number& key) {
        const ondemand::raw_json_string raw = field.key();
        const std::vector<KeyTable::Number>& expected = keys_[outerKey].innerKeys;
        if (position < expected.size() && keys_.stands(expected[position], raw.raw())) {
            key = expected[position++];
            return true;
        }
        key = keys_.latest(raw.raw());
        if (key == KeyTable::kNone) {
            std::string_view string;
            const char* const end = field.value().raw_json_token().data();
            if (!unescape(raw, static_cast<std::size_t>(end - raw.raw()), string)) return false;
            key = keys_.numberOf(string, raw.raw());
        }
        expectNext(key, keys_[outerKey].innerKeys, position);
        return true;
    }

    /// Makes `order` ready for the keys that follow `key`, which came instead of the one at `position`.
    static void expectNext(KeyTable::Number key, std::vector<KeyTable::Number>& order,
                           std::size_t& position) {
        const std::size_t end = std::min(order.size(), position + kKeysSkipped);
        for (std::size_t index = position; index < end; ++index) {
            if (order[index] != key) continue;
            position = index + 1;
            return;
        }
        if (position < order.size()) {
            order[position] = key;
        } else if (position < kExpectedKeys) {
            order.push_back(key);
        }
        ++position;
    }

    void makeDictionaryWithDuplicates(std::size_t start) {
        std::vector<Value::Entry> entries;
        for (std::size_t index = start; index < parts_.size(); index += 2)
            entries.push_back({std::move(parts_[index]), std::move(parts_[index + 1])});
        while (parts_.size() > start)
            (void)parts_.pop();
        parts_.push(Value::dictionary(std::move(entries)));
    }

    /// Unescapes a string of at most `size` bytes to where it lasts until the next call.
    bool unescape(ondemand::raw_json_string raw, std::size_t size, std::string_view& string) {
        size += simdjson::SIMDJSON_PADDING;
        if (unescaped_.size() < size) unescaped_.resize(2 * size);
        return unescape(raw, unescaped_.data(), string);
    }

    bool unescape(ondemand::raw_json_string raw, std::uint8_t* out, std::string_view& string) {
        std::uint8_t* end = out;
        const auto error = parser_->unescape(raw, end).get(string);
        return error == simdjson::SUCCESS || fail(error, offsetOf(raw.raw()));
    }

    // Faults ------------------------------------------------------------------------------------------------

    bool failTooDeep() {
        fault_ = {NSJSONSerializationErrorTooDeep, "more than 512 levels", currentOffset()};
        return false;
    }

    bool fail(simdjson::error_code error) { return fail(error, currentOffset()); }

    bool fail(simdjson::error_code error, std::size_t offset) {
        fault_ = {NSJSONSerializationErrorMalformed, "unexpected text", offset};
        switch (error) {
            case simdjson::MEMALLOC:
                throw std::bad_alloc();
            case simdjson::UTF8_ERROR:
                fault_.reason = "not well-formed UTF-8";
                break;
            case simdjson::UNESCAPED_CHARS:
                fault_.reason = "a control character in a string";
                break;
            case simdjson::UNCLOSED_STRING:
                fault_.reason = "a string that does not end";
                break;
            case simdjson::STRING_ERROR:
                fault_.reason = "a string with a wrong escape";
                break;
            case simdjson::NUMBER_ERROR:
            case simdjson::NUMBER_OUT_OF_RANGE:
                fault_.reason = "no number, or one too large";
                break;
            case simdjson::EMPTY:
                fault_.reason = "no value";
                break;
            case simdjson::TRAILING_CONTENT:
                fault_.reason = "text after the value";
                break;
            case simdjson::INCOMPLETE_ARRAY_OR_OBJECT:
                fault_.reason = "an array or a dictionary that does not end";
                fault_.isOpenEnd = true;
                break;
            default:
                break;
        }
        return false;
    }

    [[nodiscard]] std::size_t currentOffset() {
        const char* position = nullptr;
        const bool isAtEnd = document_.current_location().get(position) != simdjson::SUCCESS;
        return isAtEnd ? text_.size() : offsetOf(position);
    }

    [[nodiscard]] std::size_t offsetOf(const char* position) const {
        return std::min(static_cast<std::size_t>(position - text_.data()), text_.size());
    }

    /// Where a fault is that was found before any value was looked at.
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
    static constexpr std::size_t kKeysSkipped = 8;
    static constexpr std::size_t kExpectedKeys = 256;

    const std::string_view text_;
    const std::size_t allocatedSize_;
    const Receiver* const receiver_;
    std::vector<std::uint8_t> unescaped_;  // one string at a time
    const KeptParser parser_;
    ondemand::document document_;
    KeyTable keys_;
    std::vector<KeyTable::Number> openKeys_;  // those of the dictionaries around the place
    ValueBuilder parts_;
    Fault fault_;
};

/// What `text` stands for, or nothing with the fault. `text` may be changed.
///
/// simdjson reads a bare value at the top by other rules (it takes "falsex" for false), so such a value is
/// read as the only element of an array. So is a text without its end, of which simdjson does not say where
/// it fails.
Value decodedText(std::string& text, const Receiver* receiver, Fault& fault) {
    const auto decode = [&](bool isBracketed) {
        const std::size_t size = text.size();
        text.append(simdjson::SIMDJSON_PADDING, ' ');
        Decoder decoder(std::string_view(text).substr(0, size), text.size(),
                        isBracketed ? nullptr : receiver);
        Value value = decoder.decode(isBracketed);
        fault = decoder.fault();
        return value;
    };
    const std::size_t size = text.size();
    const std::size_t start = text.find_first_not_of(" \t\n\r");
    const bool isContainer = start != std::string::npos && (text[start] == '[' || text[start] == '{');
    text.reserve(size + NSJSONSerialization::spareCapacity);
    if (isContainer) {
        Value value = decode(false);
        if (!fault.isOpenEnd) return value;
        text.resize(size);
    }
    text.insert(0, 1, '[') += ']';
    Value value = decode(true);
    if (value.isNothing())
        fault.offset = std::min(size, fault.offset - std::min<std::size_t>(fault.offset, 1));
    return value;
}

/// Nothing, with the error that says why.
Value refused(const Fault& fault, NSErrorPtr* error) {
    if (error == nullptr) return {};
    const std::string description = "The text is no JSON that can be read: " + std::string(fault.reason) +
                                    " at byte " + std::to_string(fault.offset) + ".";
    *error = NSError::errorWithDomain(NSJSONSerializationErrorDomain, fault.code,
                                      Value::dictionary({{NSLocalizedDescriptionKey, description},
                                                         {NSJSONSerializationErrorOffsetKey, fault.offset}}));
    return {};
}

}  // namespace

Value NSJSONSerialization::JSONObjectWithData(std::string_view text, NSErrorPtr* error) {
    if (text.size() > kMaximumSize) return refused(kTooLarge, error);
    std::string copy;
    copy.reserve(text.size() + spareCapacity);
    copy = text;
    return JSONObjectWithData(std::move(copy), error);
}

Value NSJSONSerialization::JSONObjectWithData(std::string&& given, NSErrorPtr* error) {
    if (given.size() > kMaximumSize) return refused(kTooLarge, error);
    std::string text = std::move(given);
    Fault fault;
    Value value = decodedText(text, nullptr, fault);
    return value.isNothing() ? refused(fault, error) : value;
}

bool NSJSONSerialization::enumerateArrayWithData(std::string&& given, const Receiver& receive,
                                                 NSErrorPtr* error) {
    Fault fault = kTooLarge;
    if (given.size() <= kMaximumSize) {
        std::string text = std::move(given);
        const Value value = decodedText(text, &receive, fault);
        if (value.isArray()) return true;
        if (!value.isNothing()) fault = kNoArray;
    }
    (void)refused(fault, error);
    return false;
}

std::string NSJSONSerialization::dataWithJSONObject(const Value& value) {
    std::string text;
    appendText(text, value, TextStyle::json);
    return text;
}

}  // namespace zembra
