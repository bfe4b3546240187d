#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

/// Camelizing into a buffer, for the mapping, which allocates nothing for a key of usual length.
namespace zembra {

/// Where a property name lives while its key is mapped.
struct NameBuffer {
    std::array<char, 64> shortName;
    std::string longName;
};

/// What `camelizedString` gives for `key`. The view lives until `buffer` is used again.
[[nodiscard]] std::optional<std::string_view> nameForKey(std::string_view key, NameBuffer& buffer);

}  // namespace zembra
