// XML property lists into values, over libplist; any thread.

#include "bundles/NSPropertyList.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <plist/plist.h>

#include <ZembraPlatform/NSString.h>

namespace zembra {

namespace {

constexpr int kMaximumDepth = 512;

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using Allocated = std::unique_ptr<T, Free>;

struct FreeNode {
    void operator()(void* node) const { plist_free(node); }
};

/// The value of a node; nothing where it is nested too deeply.
Value valueOfNode(plist_t node, int depth);

Value arrayOfNode(plist_t node, int depth) {
    std::vector<Value> elements;
    const std::uint32_t count = plist_array_get_size(node);
    elements.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        elements.push_back(valueOfNode(plist_array_get_item(node, i), depth + 1));
        if (elements.back().isNothing()) return {};
    }
    return Value::array(std::move(elements));
}

Value dictionaryOfNode(plist_t node, int depth) {
    std::vector<Value::Entry> entries;
    plist_dict_iter start = nullptr;
    plist_dict_new_iter(node, &start);
    const Allocated<void> iterator(start);
    for (;;) {
        char* name = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iterator.get(), &name, &item);
        const Allocated<char> key(name);
        if (item == nullptr) return Value::dictionary(std::move(entries));
        entries.push_back({key.get(), valueOfNode(item, depth + 1)});
        if (entries.back().value.isNothing()) return {};
    }
}

Value valueOfNode(plist_t node, int depth) {
    if (depth > kMaximumDepth) return {};
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            std::uint8_t boolean = 0;
            plist_get_bool_val(node, &boolean);
            return boolean != 0;
        }
        case PLIST_UINT: {
            std::uint64_t number = 0;  // a negative number comes as its two's complement
            plist_get_uint_val(node, &number);
            return static_cast<std::int64_t>(number);
        }
        case PLIST_REAL: {
            double number = 0;
            plist_get_real_val(node, &number);
            return number;
        }
        case PLIST_DATE: {
            constexpr auto kEpoch = std::chrono::sys_days(std::chrono::January / 1 / 2001);
            std::int32_t seconds = 0, microseconds = 0;
            plist_get_date_val(node, &seconds, &microseconds);
            return Date(kEpoch + std::chrono::seconds(seconds) + std::chrono::microseconds(microseconds));
        }
        case PLIST_STRING: {
            std::uint64_t length = 0;
            const char* const text = plist_get_string_ptr(node, &length);
            return std::string_view(text, static_cast<std::size_t>(length));
        }
        case PLIST_DATA: {
            std::uint64_t length = 0;
            const char* const bytes = plist_get_data_ptr(node, &length);
            return std::string_view(bytes, static_cast<std::size_t>(length));
        }
        case PLIST_ARRAY:
            return arrayOfNode(node, depth);
        case PLIST_DICT:
            return dictionaryOfNode(node, depth);
        default:
            return Value::null();
    }
}

/// Whether `text`, blanks around it aside, is a decimal number of 64 bits without a plus sign or leading
/// zeros.
bool isInteger(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    text = text.substr(0, text.find_last_not_of(kBlanks) + 1);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && text == std::to_string(number);
}

/// Whether every integer of a property list is one as above. libplist (2.2 and 2.6) tells no fault in them:
/// it reads "abc" as 0, 2^64 as -1 and "042" as 34.
bool hasOnlyIntegers(std::string_view contents) {
    constexpr std::string_view kComment = "<!--", kInteger = "<integer";
    for (std::size_t tag = contents.find('<'); tag != contents.npos; tag = contents.find('<', tag)) {
        if (contents.substr(tag).starts_with(kComment)) {
            tag = contents.find("-->", tag + kComment.size());
        } else if (contents.substr(tag).starts_with(kInteger)) {
            const std::size_t start = contents.find('>', tag) + 1;
            const std::size_t end = contents.find('<', start);
            if (start == 0 || end == contents.npos || !isInteger(contents.substr(start, end - start)))
                return false;
            tag = end;
        } else {
            ++tag;
        }
    }
    return true;
}

}  // namespace

Value dictionaryWithPropertyList(std::string_view contents, std::string& reason) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (contents.starts_with(kByteOrderMark)) contents.remove_prefix(kByteOrderMark.size());
    if (!isWellFormedUTF8(contents) || contents.find('\0') != std::string_view::npos) {
        reason = "it is not UTF-8 text";
        return {};
    }
    plist_t root = nullptr;
    plist_from_xml(contents.data(), static_cast<std::uint32_t>(contents.size()), &root);
    const std::unique_ptr<void, FreeNode> owner(root);
    if (root == nullptr) {
        reason = "it is no XML property list";
    } else if (!hasOnlyIntegers(contents)) {
        reason = "it holds an integer that is none, or none of 64 bits";
    } else if (plist_get_node_type(root) != PLIST_DICT) {
        reason = "it holds no dictionary";
    } else if (Value dictionary = valueOfNode(root, 1); !dictionary.isNothing()) {
        return dictionary;
    } else {
        reason = "it is nested too deeply";
    }
    return {};
}

}  // namespace zembra
