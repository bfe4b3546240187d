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

}  // namespace zembra::test
