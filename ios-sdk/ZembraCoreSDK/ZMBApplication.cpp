#include <utility>

#include <ZembraCoreSDK/ZMBApplication.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

namespace zembra {

void ZMBApplication::configureApplication(Completion completion) {
    if (!completion) completion = [](bool, const NSErrorPtr&) {};
    ZMBSDKAuthManager::sharedManager()->getAuthTokenSuccess(
        [completion](const Value&, const Value&) { completion(true, nullptr); },
        [completion](const NSErrorPtr& error) { completion(false, error); });
}

}  // namespace zembra
