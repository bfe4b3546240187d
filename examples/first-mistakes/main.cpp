// Makes a host's first mistakes, one after the other, and prints what the host then sees: the lines that
// docs/first-mistakes.md explains. It runs without a network.

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include <ZembraSandbox/SandboxServer.h>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

using namespace std::chrono_literals;
using namespace zembra;

namespace {

void printIfFailed(const NSErrorPtr& error) {
    if (error) std::cout << *error << '\n';
    MainQueue::shared().stop();
}

/// What the README's host prints.
void registerHost(const char* mistake) {
    std::cout << "## " << mistake << '\n';
    if (const auto error = NSBundle::mainBundle()->infoDictionaryError()) std::cout << *error << '\n';
    ZMBApplication::configureApplication([](bool, const NSErrorPtr& error) { printIfFailed(error); });
    MainQueue::shared().runFor(30s);
}

void setClientId(const char* clientId) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{ZMBSDKClientIDKey, clientId}, {ZMBSDKBundleIdentifierKey, "com.example.host"}})));
}

void setServer(const std::string& address) {
    ZMBSDKAuthManager::sharedManager()->setAuthClient(
        std::make_shared<AFHTTPSessionManager>(NSURL::URLWithString(address)));
}

}  // namespace

int main() {
    NSBundle::setMainBundle(NSBundle::bundleWithInfoFile("/nonexistent/host.Info.plist"));
    registerHost("No Info.plist");

    setClientId("");
    registerHost("No client identifier");

    setClientId("sandbox.demo");
    std::cout << "## Refreshing before registering\n";
    ZMBSDKAuthManager::sharedManager()->refreshMemberToken("a token", nullptr, printIfFailed);
    MainQueue::shared().runFor(30s);

    // No host has a name with a part of more than 63 letters: this one is not found without asking anybody.
    setServer("https://" + std::string(64, 'x') + ".api.zembra.example/api/v1/");
    registerHost("The placeholder endpoint");

    const sandbox::SandboxServer server;
    setServer(server.baseAddress());
    registerHost("The server's certificate is not trusted");
}
