// A host that registers against a sandbox of its own; the tests compile it in each way that hosts are
// compiled in.

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

#include "examples/SandboxHost.h"

using namespace std::chrono_literals;
using namespace zembra;

namespace {

/// Registers as this client: nothing where no callback came, else success's absent error or the failure's.
std::optional<NSErrorPtr> registerAs(const char* clientId) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{ZMBSDKClientIDKey, clientId}, {ZMBSDKBundleIdentifierKey, "com.example.host"}})));
    const auto error = std::make_shared<std::optional<NSErrorPtr>>();
    ZMBApplication::configureApplication([error](bool, const NSErrorPtr& received) { *error = received; });
    if (!MainQueue::shared().runUntil([&] { return error->has_value(); }, 30s)) return std::nullopt;
    return *error;
}

bool check(bool condition, const char* promise) {
    if (!condition) std::fprintf(stderr, "not so: %s\n", promise);
    return condition;
}

}  // namespace

int main() {
    const examples::SandboxHost sandbox;
    const auto success = registerAs("host");
    const bool isRegistered =
        check(success && !*success && ZMBSDKAuthManager::sharedManager()->token().isString(), "it registers");

    const auto failure = registerAs("sandbox.reset");
    const NSErrorPtr cause =
        failure && *failure ? (*failure)->userInfo()[NSUnderlyingErrorKey].as<NSError>() : nullptr;
    const bool hasCause = check(cause && cause->domain() == NSURLErrorDomain, "a failure names its cause");
    return isRegistered && hasCause ? 0 : 1;
}
