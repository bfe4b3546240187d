#pragma once

// The version of the package, for hosts and modules, at compile time (macros) and at run time (function); any
// thread. The two symbols of ZembraCoreSDK_vers.h are fixed and say nothing about it.

#include <string_view>

#include <ZembraPlatform/Export.h>

/// Of the headers that the host is compiled with.
#define ZEMBRA_VERSION_MAJOR 1
#define ZEMBRA_VERSION_MINOR 0
#define ZEMBRA_VERSION_PATCH 0
#define ZEMBRA_VERSION_STRING "1.0.0"

namespace zembra {

/// "major.minor.patch" of the library that the process runs with, which may be newer than the headers that
/// the host was compiled with. Valid for ever.
[[nodiscard]] ZEMBRA_EXPORT std::string_view version() noexcept;

}  // namespace zembra
