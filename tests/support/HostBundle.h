#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <ZembraPlatform/NSBundle.h>

namespace zembra::test {

/// A host's bundle that is asked in code, and remembers for which keys.
class HostBundle : public NSBundle {
public:
    using Lookup = std::function<Value(std::string_view key)>;

    explicit HostBundle(Lookup lookup) : NSBundle(Value()), lookup_(std::move(lookup)) {}

    Value objectForInfoDictionaryKey(std::string_view key) const override {
        lookups.emplace_back(key);
        return lookup_(key);
    }

    mutable std::vector<std::string> lookups;

private:
    const Lookup lookup_;
};

/// Makes the process's main bundle one with these two identifiers; nothing leaves the key out.
inline void setHostBundle(const Value& clientId, const Value& bundleIdentifier) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{"ZMBSDKClientID", clientId}, {"CFBundleIdentifier", bundleIdentifier}})));
}

}  // namespace zembra::test
