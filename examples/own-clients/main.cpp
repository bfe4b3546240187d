// A host with HTTP clients of its own: one that logs the status behind a failure, and one that answers
// without a network, as the tests of a host want it.

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include <ZembraSandbox/SandboxServer.h>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

#include "LoggingClient.h"

using namespace std::chrono_literals;
using namespace zembra;

namespace {

/// Talks to the sandbox.
class SandboxManager : public LoggingManager {
public:
    static std::string cmsAPIHost() { return address; }

    static inline std::string address;
};

/// Answers every request at once, on the main queue.
class FakeClient : public AFHTTPSessionManager {
public:
    FakeClient() : AFHTTPSessionManager(NSURL::URLWithString("https://fake.example/")) {}

    Task POST(std::string_view, const Value&, Progress, Success success, Failure) override {
        MainQueue::shared().post([success] {
            success(nullptr, Value::dictionary({{"token", "a token"}, {"account_id", "an account"}}));
        });
        return nullptr;
    }
};

/// Registers as this client, and prints what came of it; false where no callback comes.
bool registerAs(const char* clientId) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{ZMBSDKClientIDKey, clientId}, {ZMBSDKBundleIdentifierKey, "com.example.host"}})));
    bool isDone = false;
    ZMBApplication::configureApplication([&](bool, const NSErrorPtr& error) {
        isDone = true;
        if (error)
            std::cout << *error << '\n';
        else
            std::cout << "registered for " << ZMBSDKAuthManager::sharedManager()->accountId().text() << '\n';
    });
    return MainQueue::shared().runUntil([&] { return isDone; }, 30s);
}

}  // namespace

int main() {
    const sandbox::SandboxServer server;
    SandboxManager::address = server.baseAddress();
    const auto manager = ZMBSDKAuthManager::sharedManager<SandboxManager>();
    manager->authClient()->addTrustedCertificateAuthority(server.certificateAuthority());
    if (!registerAs("sandbox.refused")) return 1;

    // Not through the LoggingManager's own version, which would put a LoggingClient in its place.
    manager->ZMBSDKAuthManager::setAuthClient(std::make_shared<FakeClient>());
    return registerAs("anybody") ? 0 : 1;
}
