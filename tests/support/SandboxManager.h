#pragma once

// The shared manager and the main bundle of a test, which talk to the test's own server.

#include <memory>
#include <string>

#include <ZembraSandbox/SandboxServer.h>
#include <gtest/gtest.h>

#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

namespace zembra::test {

/// A manager that talks to a sandbox server.
class SandboxManager : public ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return address; }

    static inline std::string address;
};

/// Makes the process's shared manager talk to `address`, trusting that authority.
inline std::shared_ptr<ZMBSDKAuthManager> sharedManagerAt(const std::string& address,
                                                          const std::string& authority) {
    SandboxManager::address = address;
    auto manager = ZMBSDKAuthManager::sharedManager<SandboxManager>();
    manager->authClient()->addTrustedCertificateAuthority(authority);
    return manager;
}

/// Makes the process's main bundle one with these two identifiers; nothing leaves the key out.
inline void setHostBundle(const Value& clientId, const Value& bundleIdentifier) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{"ZMBSDKClientID", clientId}, {"CFBundleIdentifier", bundleIdentifier}})));
}

/// A registered host with a server of its own.
class SandboxTest : public testing::Test {
protected:
    SandboxTest() { setHostBundle("sandbox.demo", "com.example.host"); }

    const sandbox::SandboxServer server;
    const std::shared_ptr<ZMBSDKAuthManager> manager =
        sharedManagerAt(server.baseAddress(), server.certificateAuthority());
};

}  // namespace zembra::test
