#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

/// From keys to property names, as the mapping takes the step: a key of usual length costs no allocation.
/// Private to the SDK; the functions are pure.
namespace zembra {

/// Where a property name lives while its key is mapped.
struct NameBuffer {
    std::array<char, 64> shortName;
    std::string longName;
};

/// What `camelizedString` gives for `key`. The view lives until `buffer` is used again.
[[nodiscard]] std::optional<std::string_view> nameForKey(std::string_view key, NameBuffer& buffer);

/// Whether the mapping never assigns to a property of that name.
[[nodiscard]] bool isSkippedName(std::string_view name) noexcept;

}  // namespace zembra
