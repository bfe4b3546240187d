#pragma once

#include <string>
#include <string_view>

#include "SandboxServer.h"

namespace zembra::sandbox {

/// Whether two ASCII texts are equal without regard to case.
[[nodiscard]] bool isEqualWithoutCase(std::string_view left, std::string_view right);

/// The exchange as one line of printable text. Masked are `token`, which its answer hands out, and the values
/// of headers that may carry a secret and of all parameters but those known to carry none.
[[nodiscard]] std::string exchangeLine(const Exchange& exchange, std::string_view token);

}  // namespace zembra::sandbox
