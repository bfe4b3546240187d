#include <algorithm>
#include <exception>

#include <ZembraCoreSDK/KeyCamelization.h>
#include <ZembraCoreSDK/QVDataObject.h>

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

/// Converts `scanned` into `out`, which has room for as many bytes. Returns how many of them stand before the
/// first zero byte.
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

}  // namespace

std::optional<std::string_view> nameForKey(std::string_view key, NameBuffer& buffer) {
    const bool isASCII = isAllASCII(key);
    if (!isASCII && !isWellFormedUTF8(key)) return std::nullopt;
    const std::string_view scanned = isASCII ? key : key.substr(0, lengthOfString(key));
    char* out = buffer.shortName.data();
    if (scanned.size() > buffer.shortName.size()) {
        buffer.longName.resize(scanned.size());
        out = buffer.longName.data();
    }
    const std::string_view name(out, camelize(scanned, out));
    if (!isASCII && !isWellFormedUTF8(name)) return std::nullopt;
    return name;
}

std::optional<std::string> camelizedString(std::string_view string) {
    NameBuffer buffer;
    const std::optional<std::string_view> name = nameForKey(string, buffer);
    return name ? std::optional<std::string>(*name) : std::nullopt;
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

}  // namespace zembra
