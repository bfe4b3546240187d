#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <exception>

#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSString.h>

namespace zembra {

// From keys to property names
// --------------------------------------------------------------------------------------------------------

bool IsUppercase(const char& byte) noexcept {
    return byte >= 'A' && byte <= 'Z';
}

bool IsLowercase(const char& byte) noexcept {
    return byte >= 'a' && byte <= 'z';
}

namespace {

/// Where a conversion goes that has no end: it would write zero bytes for ever, and stops at the end of its
/// buffer instead.
[[noreturn, gnu::noinline, gnu::cold]] void camelizationNeverEnds() noexcept {
    std::terminate();
}

constexpr bool isLetter(char byte) noexcept {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

constexpr char raised(char byte) noexcept {
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 32) : byte;
}

bool isAllASCII(std::string_view string) noexcept {
    unsigned char bits = 0;
    for (const char byte : string)
        bits |= static_cast<unsigned char>(byte);
    return bits < 0x80;
}

/// How many bytes of a well-formed string the conversion reads.
std::size_t scannedLength(std::string_view string) noexcept {
    return isAllASCII(string) ? string.size() : lengthOfString(string);
}

/// The conversion itself: reads all of `scanned`, writes at most as many bytes to `out`, and returns how many
/// stand before the first zero byte among them.
std::size_t camelize(std::string_view scanned, char* out) noexcept {
    std::size_t length = 0;
    std::size_t end = std::string_view::npos;
    for (std::size_t index = 0; index < scanned.size(); ++index) {
        if (isLetter(scanned[index])) {
            out[length++] = scanned[index];
            continue;
        }
        if (++index == scanned.size()) camelizationNeverEnds();
        if (scanned[index] == '\0') end = std::min(end, length);
        out[length++] = raised(scanned[index]);
    }
    return std::min(end, length);
}

/// A conversion of short ASCII keys on the stack, letters in words of eight.
class ShortKey {
public:
    static constexpr std::size_t kCapacity = 64;

    /// The camelized form, which lives here; `std::nullopt`, with nothing decided, where the key is none of
    /// those that this conversion is for.
    std::optional<std::string_view> camelized(std::string_view key) noexcept {
        if (key.size() > kCapacity || std::endian::native != std::endian::little) return std::nullopt;
        std::size_t index = 0;
        std::size_t length = 0;
        std::uint64_t bits = 0;
        while (index < key.size()) {
            const std::uint64_t word = wordAt(key, index);
            bits |= word;
            std::memcpy(buffer_.data() + length, &word, kWordSize);
            const std::size_t letterCount = leadingLetters(word);
            length += letterCount;
            index += letterCount;
            if (letterCount == kWordSize || index == key.size()) continue;
            if (++index == key.size()) {
                if ((bits & kHighBits) == 0) camelizationNeverEnds();
                return std::nullopt;
            }
            if (key[index] == '\0') return std::nullopt;
            bits |= static_cast<unsigned char>(key[index]);
            buffer_[length++] = raised(key[index++]);
        }
        if ((bits & kHighBits) != 0) return std::nullopt;
        return std::string_view(buffer_.data(), length);
    }

private:
    static constexpr std::size_t kWordSize = sizeof(std::uint64_t);
    static constexpr std::uint64_t kEachByte = 0x0101'0101'0101'0101;
    static constexpr std::uint64_t kHighBits = 0x80 * kEachByte;

    template <class Word>
    static std::uint64_t load(const char* bytes) noexcept {
        Word word;
        std::memcpy(&word, bytes, sizeof word);
        return word;
    }

    /// The eight bytes from `index` on, zeros behind the last; no byte beyond the key is read.
    static std::uint64_t wordAt(std::string_view key, std::size_t index) noexcept {
        const char* const bytes = key.data() + index;
        const std::size_t rest = key.size() - index;
        if (rest >= kWordSize) return load<std::uint64_t>(bytes);
        if (key.size() >= kWordSize)
            return load<std::uint64_t>(bytes + rest - kWordSize) >> 8 * (kWordSize - rest);
        if (rest >= 4)
            return load<std::uint32_t>(bytes) | load<std::uint32_t>(bytes + rest - 4) << 8 * (rest - 4);
        return load<std::uint8_t>(bytes) | load<std::uint8_t>(bytes + rest / 2) << 8 * (rest / 2) |
               load<std::uint8_t>(bytes + rest - 1) << 8 * (rest - 1);
    }

    static std::size_t leadingLetters(std::uint64_t word) noexcept {
        const std::uint64_t lowercase = (word | 0x20 * kEachByte) & ~kHighBits;
        const std::uint64_t fromA = lowercase + (0x80 - 'a') * kEachByte;   // high bit: at least 'a'
        const std::uint64_t aboveZ = lowercase + (0x7F - 'z') * kEachByte;  // high bit: above 'z'
        const std::uint64_t others = (~fromA | aboveZ | word) & kHighBits;
        return static_cast<std::size_t>(std::countr_zero(others)) / 8;
    }

    std::array<char, kCapacity + kWordSize> buffer_;
};

}  // namespace

std::optional<std::string> camelizedString(std::string_view string) {
    ShortKey shortKey;
    if (const auto name = shortKey.camelized(string)) return std::string(*name);
    if (!isWellFormedUTF8(string)) return std::nullopt;
    const std::string_view scanned = string.substr(0, scannedLength(string));
    std::string result(scanned.size(), '\0');
    result.resize(camelize(scanned, result.data()));
    if (!isWellFormedUTF8(result)) return std::nullopt;
    return result;
}

bool camelizationEnds(std::string_view string) noexcept {
    if (!isWellFormedUTF8(string)) return true;
    string = string.substr(0, scannedLength(string));
    // Of the separators at the end, every other one takes the next along; a last one alone is never passed.
    const auto lastLetter = std::find_if(string.rbegin(), string.rend(), isLetter);
    return (lastLetter - string.rbegin()) % 2 == 0;
}

// Screening
// --------------------------------------------------------------------------------------------------------

namespace {

bool isContainer(const Value& value) noexcept {
    return value.isArray() || value.isDictionary();
}

bool holdsEndlessKey(const Value& json) {
    std::vector<const Value*> containers;  // still to be looked through
    const auto enter = [&containers](const Value& value) {
        if (isContainer(value)) containers.push_back(&value);
    };
    enter(json);
    while (!containers.empty()) {
        const Value& container = *containers.back();
        containers.pop_back();
        for (const Value& element : container.elements())
            enter(element);
        for (const auto& [key, value] : container.entries()) {
            if (!camelizationEnds(*key.string())) return true;
            enter(value);
        }
    }
    return false;
}

/// An array or a dictionary that is being walked, and what is to stand in the new one.
struct ScreenedContainer {
    const Value* container;
    const Value* key;  // of the container itself, where it stands in a dictionary
    std::vector<Value> keys;
    std::vector<Value> values;
    bool hasChanged = false;
    std::size_t next = 0;

    void add(const Value* itemKey, Value value) {
        if (container->isDictionary()) keys.push_back(*itemKey);
        values.push_back(std::move(value));
    }

    Value screened() {
        if (!hasChanged) return *container;
        if (container->isArray()) return Value::array(std::move(values));
        std::vector<Value::Entry> entries;
        entries.reserve(keys.size());
        for (std::size_t index = 0; index < keys.size(); ++index)
            entries.push_back({std::move(keys[index]), std::move(values[index])});
        return Value::dictionary(std::move(entries));
    }
};

}  // namespace

Value withoutEndlessKeys(Value json) {
    if (!holdsEndlessKey(json)) return json;
    std::vector<ScreenedContainer> path;
    path.push_back({&json, nullptr, {}, {}});
    for (;;) {
        ScreenedContainer& current = path.back();
        if (current.next < current.container->count()) {
            const std::size_t index = current.next++;
            const bool isEntry = current.container->isDictionary();
            const Value* const key = isEntry ? &current.container->entries()[index].key : nullptr;
            const Value& item =
                isEntry ? current.container->entries()[index].value : current.container->elements()[index];
            if (isEntry && !camelizationEnds(*key->string()))
                current.hasChanged = true;
            else if (isContainer(item))
                path.push_back({&item, key, {}, {}});
            else
                current.add(key, item);
            continue;
        }
        const bool hasChanged = current.hasChanged;
        const Value* const key = current.key;
        Value screened = current.screened();
        path.pop_back();
        if (path.empty()) return screened;
        path.back().hasChanged |= hasChanged;
        path.back().add(key, std::move(screened));
    }
}

// Data objects
// --------------------------------------------------------------------------------------------------------

namespace {

constexpr std::array<std::string_view, 3> kSkippedNames{"id", "_id", "description"};

bool isSkipped(std::string_view name) noexcept {
    for (const std::string_view skipped : kSkippedNames)
        if (name.size() == skipped.size() && name.front() == skipped.front() && name == skipped) return true;
    return false;
}

/// Whether `value` is assigned to a property of class `cls` in another form than its own.
bool needsConversion(const Value& value, const Class& cls) noexcept {
    return value.isArray() || cls.isSubclassOf(QVDataObject::staticClass()) ||
           (value.isString() && cls.isSubclassOf(NSDate::staticClass()));
}

/// The value to assign where `value` met the property `key` of `object`, declared with class `cls`.
Value convertedValue(QVDataObject& object, Value value, std::string_view key, const Class& cls) {
    if (cls.isSubclassOf(QVDataObject::staticClass()))
        return QVDataObject::objectWithJSON(cls, std::move(value));
    if (value.isArray()) {
        const auto hook = object.dynamicClass().arrayPropertyForKey;
        if (hook == nullptr) return value;
        Value replacement = hook(object, key, value);
        return replacement.isArray() ? replacement : Value::array({});
    }
    if (cls.isSubclassOf(NSDate::staticClass()) && value.isString()) {
        const auto hook = object.dynamicClass().dateFormatter;
        const auto formatter = hook == nullptr ? nullptr : hook(object);
        if (formatter == nullptr) return {};
        const std::optional<Date> date = formatter->dateFromString(*value.string());
        return date ? Value(*date) : Value();
    }
    return value;
}

}  // namespace

QVDataObject::~QVDataObject() = default;

const DataObjectClass& QVDataObject::staticClass() noexcept {
    static constexpr DataObjectClass description{
        {"QVDataObject", &typeid(QVDataObject), nullptr, {}, detail::creationOf<QVDataObject>()},
        nullptr,
        nullptr,
        false};
    return description;
}

const DataObjectClass& QVDataObject::dynamicClass() const noexcept {
    return staticClass();
}

std::shared_ptr<QVDataObject> QVDataObject::objectWithJSON(const Class& cls, Value json) {
    if (cls.create == nullptr || !cls.isSubclassOf(staticClass())) return nullptr;
    auto object = std::static_pointer_cast<QVDataObject>(cls.create());
    return object->initWithJSON(std::move(json)) ? object : nullptr;
}

bool QVDataObject::initWithJSON(Value json) {
    if (!json.isDictionary()) return false;
    const DataObjectClass& cls = dynamicClass();
    // Where nothing stands between a key and its property, the two operations are taken in one step. A class
    // without a description of its own may override them unseen.
    const bool isDirect = !cls.overridesMapping && *cls.type == typeid(*this);
    const std::span<const Value::Entry> entries = json.entries();
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const std::string_view key = *entries[index].key.string();
        ShortKey shortKey;
        std::optional<std::string> longName;
        std::optional<std::string_view> name = shortKey.camelized(key);
        if (!name) name = longName = camelizedString(key);
        if (!name || isSkipped(*name)) continue;
        if (json.containsNull() && json[*name].isNull()) continue;
        if (isDirect) {
            const PropertyDescription* const property = cls.property(*name);
            const Class* const declared = property == nullptr ? nullptr : property->declaredClass();
            if (declared == nullptr) continue;
            Value& storage = *property->storage(*this);
            if (needsConversion(entries[index].value, *declared))
                storage = convertedValue(*this, json.takeValueAt(index), *name, *declared);
            else
                storage = json.takeValueAt(index);
        } else if (const Class* const declared = dataObjectClassForKey(*name)) {
            setPropertyValue(json.takeValueAt(index), *name, *declared);
        }
    }
    return true;
}

const Class* QVDataObject::dataObjectClassForKey(std::string_view key) const {
    const PropertyDescription* const property = dynamicClass().property(key);
    return property == nullptr ? nullptr : property->declaredClass();
}

void QVDataObject::setPropertyValue(Value value, std::string_view key, const Class& cls) {
    value = convertedValue(*this, std::move(value), key, cls);
    const PropertyDescription* const property = dynamicClass().property(key);
    if (Value* const storage = property == nullptr ? nullptr : property->storage(*this))
        *storage = std::move(value);
}

}  // namespace zembra
