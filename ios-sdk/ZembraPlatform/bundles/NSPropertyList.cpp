#include "bundles/NSPropertyList.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string_view>
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
