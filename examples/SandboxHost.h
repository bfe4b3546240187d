#pragma once

#include <memory>
#include <string>

#include <ZembraSandbox/SandboxServer.h>

#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

namespace zembra::examples {

/// Runs a sandbox server and points the SDK at it, so that an example needs no network. A host that talks to
/// the platform itself needs none of this.
class SandboxHost {
public:
    /// Makes the process's shared manager: call it before anything else of the SDK.
    SandboxHost() {
        address_ = server_.baseAddress();
        ZMBSDKAuthManager::sharedManager<Manager>()->authClient()->addTrustedCertificateAuthority(
            server_.certificateAuthority());
    }

    [[nodiscard]] const std::string& address() const { return address_; }

    [[nodiscard]] const sandbox::SandboxServer& server() const { return server_; }

private:
    class Manager : public ZMBSDKAuthManager {
    public:
        static std::string cmsAPIHost() { return address_; }
    };

    sandbox::SandboxServer server_;
    static inline std::string address_;
};

}  // namespace zembra::examples
