// The bundle that holds the SDK's own version; any thread.

#include <ZembraCoreSDK/Version.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

namespace zembra {

std::shared_ptr<NSBundle> coreSDKBundle() {
    // Never destroyed, like the shared manager whose bundle it is.
    static const auto* const bundle = new std::shared_ptr<NSBundle>(std::make_shared<NSBundle>(
        Value::dictionary({{"CFBundleShortVersionString", ZEMBRA_VERSION_STRING}})));
    return *bundle;
}

}  // namespace zembra
