// The version of the package, compiled into the library; any thread.

#include <ZembraCoreSDK/Version.h>

namespace zembra {

std::string_view version() noexcept {
    return ZEMBRA_VERSION_STRING;
}

}  // namespace zembra
