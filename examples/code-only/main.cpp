// A host that says in code who it is, registers, and looks for the cause of a failure. It needs neither
// exceptions nor run-time types: the tests compile it without either.

#include <chrono>
#include <iostream>
#include <memory>
#include <optional>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

#include "../SandboxHost.h"

using namespace std::chrono_literals;
using namespace zembra;

namespace {

/// Registers as this client, and prints what came of it; false where no callback comes.
bool registerAs(const char* clientId) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{ZMBSDKClientIDKey, clientId}, {ZMBSDKBundleIdentifierKey, "com.example.host"}})));
    bool isDone = false;
    ZMBApplication::configureApplication([&](bool success, const NSErrorPtr& error) {
        isDone = true;
        const Value token = ZMBSDKAuthManager::sharedManager()->token();
        if (success && token.isString()) std::cout << clientId << " is registered\n";
        if (!error) return;
        std::cout << clientId << " is not: " << error->domain() << ' ' << error->code() << '\n';
        if (const auto cause = error->userInfo()[NSUnderlyingErrorKey].as<NSError>())
            std::cout << "since: " << cause->domain() << ", " << cause->localizedDescription() << '\n';
    });
    return MainQueue::shared().runUntil([&] { return isDone; }, 30s);
}

}  // namespace

int main() {
    const examples::SandboxHost sandbox;
    return registerAs("host") && registerAs("sandbox.reset") ? 0 : 1;
}
