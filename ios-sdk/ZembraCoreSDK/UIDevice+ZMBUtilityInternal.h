#pragma once

#include <optional>
#include <string>

/// Not part of the public interface.
namespace zembra {

/// The readable name of the device model that has the hardware identifier, as `platfromString` gives it.
[[nodiscard]] std::string modelNameForIdentifier(const std::optional<std::string>& identifier);

}  // namespace zembra
