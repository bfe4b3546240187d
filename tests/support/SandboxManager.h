#pragma once

#include <memory>
#include <string>

#include <ZembraSandbox/SandboxServer.h>

#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

namespace zembra::test {

/// A manager that talks to another server than the platform's.
class ElsewhereManager : public ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return address; }

    static inline std::string address;
};

/// Makes the process's shared manager talk to `address`, trusting that authority.
inline std::shared_ptr<ZMBSDKAuthManager> sharedManagerAt(const std::string& address,
                                                          const std::string& authority) {
    ElsewhereManager::address = address;
    auto manager = ZMBSDKAuthManager::sharedManager<ElsewhereManager>();
    manager->authClient()->addTrustedCertificateAuthority(authority);
    return manager;
}

/// Makes the process's main bundle one with these two identifiers; nothing leaves the key out.
inline void setHostBundle(const Value& clientId, const Value& bundleIdentifier) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{"ZMBSDKClientID", clientId}, {"CFBundleIdentifier", bundleIdentifier}})));
}

}  // namespace zembra::test
