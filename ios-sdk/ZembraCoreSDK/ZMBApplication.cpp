// The one call at start-up, on top of the shared manager.

#include <utility>

#include <ZembraCoreSDK/ZMBApplication.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

namespace zembra {

ZMBApplication::~ZMBApplication() = default;

void ZMBApplication::configureApplication(Completion completion) {
    if (!completion) completion = [](bool, const NSErrorPtr&) {};
    ZMBSDKAuthManager::sharedManager()->getAuthTokenSuccess(
        [completion](const Value&, const Value&) { completion(true, nullptr); },
        [completion](const NSErrorPtr& error) { completion(false, error); });
}

}  // namespace zembra
