// A host that uses the SDK and a module beside it: one manager, whose token both read, and messages in the
// user's language.

#include <iostream>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

#include "../SandboxHost.h"
#include "Places.h"

int main() {
    const zembra::examples::SandboxHost sandbox;

    std::shared_ptr<places::PlacesError> error;
    if (places::placesOfAccount(&error).empty())
        std::cout << error->className() << ": " << error->userInfo()[zembra::kZMBSDKErrorInfoKey].text()
                  << '\n';
    std::cout << zembra::sdkAuthServerSideError<places::PlacesError>()
                     ->userInfo()[zembra::kZMBSDKErrorInfoKey]
                     .text()
              << '\n';

    int status = 1;
    zembra::ZMBApplication::configureApplication([&](bool success, const zembra::NSErrorPtr&) {
        status = success ? 0 : 1;
        zembra::MainQueue::shared().stop();
    });
    zembra::MainQueue::shared().run();

    const zembra::Value token = zembra::ZMBSDKAuthManager::sharedManager()->token();
    std::cout << "token: " << (token.isString() ? "present" : "absent") << '\n';
    for (const auto& place : places::placesOfAccount(&error)) {
        std::cout << place->displayName.get().value_or("?");
        if (place->ownerInfo) std::cout << ", owned by " << place->ownerInfo->fullName.get().value_or("?");
        std::cout << '\n';
    }
    return status;
}
