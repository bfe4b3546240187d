#pragma once

// How an exchange is printed, for the server's log; any thread.

#include <string>
#include <string_view>

#include "SandboxServer.h"

namespace zembra::sandbox {

/// Whether two ASCII texts are equal without regard to case.
[[nodiscard]] bool isEqualWithoutCase(std::string_view left, std::string_view right);

/// The exchange as one line of printable text. Shown is what is known to be no secret; masked are `token`,
/// which the answer hands out, and whatever else the client may have put a secret into: methods, paths and
/// parameters that the platform does not know, queries, and the values of all but some headers.
[[nodiscard]] std::string exchangeLine(const Exchange& exchange, std::string_view token);

}  // namespace zembra::sandbox
