#pragma once

// The form that a request carries, for the platform's API; any thread.

#include <optional>
#include <string_view>

#include "SandboxServer.h"

namespace zembra::sandbox {

/// Decodes an application/x-www-form-urlencoded body: %XX is a byte, + a space; any bytes may come of it. The
/// empty body has no pairs. `std::nullopt` for a body that is not well-formed: a % without two hexadecimal
/// digits, an empty pair or name, a pair without =, a raw space, control or non-ASCII byte.
[[nodiscard]] std::optional<Fields> decodedForm(std::string_view body);

}  // namespace zembra::sandbox
