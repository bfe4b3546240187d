// Screens JSON before it is mapped: takes out the keys that never finish converting. Without state; any
// thread may call it.

#include <utility>
#include <vector>

#include <ZembraCoreSDK/QVDataObject.h>

namespace zembra {

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
